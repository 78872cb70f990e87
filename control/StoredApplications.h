// The list of applications that root keeps on this machine (limits/ApplicationsCatalogue.h), as a
// backup takes and gives it. Main thread; blocks for as long as the disk does.
#pragma once

#include <QString>
#include <QVariantList>
#include <optional>

#include "control/WholeFile.h"

namespace vardell::control {

// Absent where none is stored.
std::optional<QVariantList> ReadApplications();

class ApplicationsEditor {
 public:
  ApplicationsEditor();

  // Empty, or for people why not; the list is then as it was.
  [[nodiscard]] QString Write(const QVariantList& applications);
  // The file as it was when this was made, if it was written. Empty, or for people why not.
  [[nodiscard]] QString PutBack();

 private:
  LoadedFile before_;
  bool wasWritten_ = false;
};

}  // namespace vardell::control
