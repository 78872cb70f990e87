// The file with the settings of this machine's agents, and how it is changed: by one vardellctl at
// a time, and so that at no moment, whatever ends the program or the machine, the settings are
// lost.
//
// Three files may stand beside it: ".lock", which is held by whoever changes it; ".kept", the
// settings as they were, from before a change is written until its maker is content; ".restoring",
// see RestoreNote.h. Main thread; blocks for as long as the disk does.
#pragma once

#include <QString>
#include <QVariantMap>

#include "control/WholeFile.h"

namespace vardell::control {

QString SettingsPath();

struct StoredSettings {
  QVariantMap values;
  QString problem;  // for people: what is there cannot be read as settings
};

// A file that is missing has no settings.
StoredSettings ReadSettings();

// The settings are those of ".kept" until an editor has put them back.
bool HasInterruptedChange();

class SettingsEditor {
 public:
  // Makes the folder where it is missing, waits for another vardellctl for ten seconds, and puts
  // back what an interrupted change has left. A problem: nothing can be changed.
  SettingsEditor();
  ~SettingsEditor();  // content with how the settings are
  SettingsEditor(const SettingsEditor&) = delete;
  SettingsEditor& operator=(const SettingsEditor&) = delete;

  const QString& problem() const { return problem_; }
  const QVariantMap& values() const { return values_; }  // as they were when this was made
  // The settings had to be put back from the copy.
  bool isRepaired() const { return isRepaired_; }

  // Empty, or for people what went wrong and how the settings are now.
  [[nodiscard]] QString Write(const QVariantMap& values);
  // The file as it was when this was made, byte for byte, if it was written. Empty, or as above.
  [[nodiscard]] QString PutBack();

 private:
  QString Lock();
  void Repair();

  int lock_ = -1;
  QString problem_;
  LoadedFile before_;
  QVariantMap values_;
  bool isRepaired_ = false;
  bool wasWritten_ = false;
  bool needsCopy_ = false;  // for a person, or the next one of these
};

}  // namespace vardell::control
