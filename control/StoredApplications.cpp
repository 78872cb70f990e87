#include "control/StoredApplications.h"

#include <unistd.h>

#include <QFile>
#include <cerrno>

#include "Common Sources/Caps.h"
#include "limits/ApplicationsCatalogue.h"
#include "platform/linux/LinuxApplicationPreferences.h"

namespace vardell::control {

std::optional<QVariantList> ReadApplications() {
  LinuxApplicationPreferences preferences;
  if (!HasApplicationsCatalogue(preferences)) return std::nullopt;
  return preferences.Value(QLatin1String(kApplicationsKey))->toList();
}

ApplicationsEditor::ApplicationsEditor()
    : before_(LoadWholeFile(ApplicationPreferencesPath(), kMaxPropertyListBytes)) {}

QString ApplicationsEditor::Write(const QVariantList& applications) {
  if (!before_.bytes && !before_.isMissing) return before_.problem;
  LinuxApplicationPreferences preferences;
  preferences.SetValue(QLatin1String(kApplicationsKey), applications);
  wasWritten_ = preferences.Synchronize();
  return wasWritten_ ? QString() : preferences.Problem();
}

QString ApplicationsEditor::PutBack() {
  if (!wasWritten_) return {};
  const QString path = ApplicationPreferencesPath();
  if (before_.bytes) return WriteWholeFile(path, *before_.bytes, 0600);
  if (unlink(QFile::encodeName(path).constData()) == 0 || errno == ENOENT) return {};
  return QStringLiteral("%1 is to be removed: %2").arg(path, ErrorText(errno));
}

}  // namespace vardell::control
