// A backup: what the Server knows of everybody, and the settings and the list of applications of
// one machine. In a file it is a compressed archive of mode 3 (Common Sources/CompressedArchive.h)
// of the dictionary
//
//   {"Vardell Backup": 1, "Made": date, "Machine": name, "Household": what the Server answers to
//    GET /v1/backup, "Settings": dictionary, "Applications": array, absent where none is stored}
#pragma once

#include <QDateTime>
#include <QString>
#include <QVariantList>
#include <QVariantMap>
#include <optional>

namespace vardell::control {

inline constexpr int kBackupVersion = 1;

struct Backup {
  QDateTime made;  // UTC, whole seconds
  QString machine;
  QVariantMap household;
  QVariantMap settings;
  std::optional<QVariantList> applications;
};

QVariantMap MakeDocument(const Backup& backup);

struct BackupOrProblem {
  std::optional<Backup> backup;
  QString problem;  // for people
};

// The whole document is looked at; what limits and days of use may be is for the Server to say.
BackupOrProblem ParseDocument(const QVariant& document);

// A null array where the backup is too large, or holds what cannot be packed.
QByteArray PackBackup(const Backup& backup);
// `name` is the file's, for the problem.
BackupOrProblem UnpackBackup(const QByteArray& bytes, const QString& name);

struct BackupCounts {
  qsizetype limits = 0;
  qsizetype people = 0;    // who have limits or use
  qsizetype days = 0;      // of a person, with use
  qsizetype settings = 0;  // that are stored
};

BackupCounts CountsOf(const Backup& backup);

// "42 limits of 7 people, 310 days of use, 5 settings"
QString CountsText(const BackupCounts& counts);

// "1 limit", "2 limits".
QString Counted(qsizetype count, const QString& one, const QString& many);

}  // namespace vardell::control
