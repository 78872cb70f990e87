// Alerts and controls for windows that ask something. Nothing in the agent asks yet. Main thread
// only; the alerts return when dismissed, and run the event loop meanwhile.
#pragma once

#include <QString>
#include <QWidget>
#include <cstdint>

namespace vardell {

// All keys are localised; `explanationKey` may be null. True only where the button that bears
// `defaultKey` was chosen; Return chooses the other one, on purpose.
[[nodiscard]] bool ConfirmAlert(const char* messageKey, const char* explanationKey,
                                const char* defaultKey, const char* cancelKey);

// A sentence and an OK button. Nothing where `messageKey` is null; `explanationKey` may be.
void NoteAlert(const char* messageKey, const char* explanationKey);

// Gives a control of a window the name by which FindControl knows it. Signatures are made with
// FourCharCode.
void SetControlId(QWidget& control, std::uint32_t signature, std::uint32_t id);
// The control within `window` that has that name, or null.
QWidget* FindControl(const QWidget& window, std::uint32_t signature, std::uint32_t id);

// What the control says or holds; empty where it has no text.
QString CopyControlText(const QWidget& control);

}  // namespace vardell
