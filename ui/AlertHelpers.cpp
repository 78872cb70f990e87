#include "ui/AlertHelpers.h"

#include <QMessageBox>
#include <QPushButton>
#include <QVariant>

#include "Common Sources/Localization.h"

namespace vardell {

namespace {

constexpr char kControlIdProperty[] = "vardellControlId";

void Prepare(QMessageBox& box, const char* messageKey, const char* explanationKey) {
  box.setWindowTitle(QStringLiteral("Vardell"));
  box.setIcon(QMessageBox::Critical);
  box.setTextFormat(Qt::PlainText);
  box.setText(Localized(messageKey));
  if (explanationKey) box.setInformativeText(Localized(explanationKey));
}

QVariant ControlId(std::uint32_t signature, std::uint32_t id) {
  return QVariant(qulonglong{signature} << 32 | id);
}

}  // namespace

bool ConfirmAlert(const char* messageKey, const char* explanationKey, const char* defaultKey,
                  const char* cancelKey) {
  QMessageBox box;
  Prepare(box, messageKey, explanationKey);
  const QAbstractButton* chosen = box.addButton(Localized(defaultKey), QMessageBox::AcceptRole);
  QPushButton* cancel = box.addButton(Localized(cancelKey), QMessageBox::RejectRole);
  box.setDefaultButton(cancel);
  box.setEscapeButton(cancel);
  box.exec();
  return box.clickedButton() == chosen;
}

void NoteAlert(const char* messageKey, const char* explanationKey) {
  if (!messageKey) return;
  QMessageBox box;
  Prepare(box, messageKey, explanationKey);
  box.addButton(QMessageBox::Ok)->setText(Localized("OK"));
  box.exec();
}

void SetControlId(QWidget& control, std::uint32_t signature, std::uint32_t id) {
  control.setProperty(kControlIdProperty, ControlId(signature, id));
}

QWidget* FindControl(const QWidget& window, std::uint32_t signature, std::uint32_t id) {
  for (QWidget* control : window.findChildren<QWidget*>()) {
    if (control->property(kControlIdProperty) == ControlId(signature, id)) return control;
  }
  return nullptr;
}

QString CopyControlText(const QWidget& control) {
  for (const char* property : {"text", "plainText", "currentText"}) {
    const QVariant text = control.property(property);
    if (text.isValid()) return text.toString();
  }
  return {};
}

}  // namespace vardell
