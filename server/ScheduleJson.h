// A schedule as JSON:
//
//   {"days": {"monday": [{"start": "15:00", "stop": "20:00"}], "tuesday": [], ..., "sunday": []},
//    "holidays": [{"name": "Summer", "first": "2024-07-01", "last": "2024-08-31",
//                  "windows": [{"start": "09:00", "stop": "12:00"}, {"start": "20:00", "stop":
//                  "01:00"}]}]}
//
// All seven days are there; an empty list is a day that is closed. A stop that is not after its
// start is the next day's; the end of the day may be written "24:00". A holiday of one date needs
// no "last", a schedule without holidays no "holidays".
#pragma once

#include <QJsonObject>
#include <QString>
#include <optional>

#include "server/Schedules.h"

namespace vardell::server {

struct ScheduleProblem {
  QString field;    // "days.monday[1].stop"
  QString message;  // a sentence for people that goes on from the field: "must be ..."
};

// Fills `schedule`, or tells the first problem and leaves it alone. Unknown fields are one.
[[nodiscard]] std::optional<ScheduleProblem> ParseSchedule(const QJsonObject& object,
                                                           Schedule* schedule);

// What parses into `schedule`.
QJsonObject PrintSchedule(const Schedule& schedule);

}  // namespace vardell::server
