// The command line of vardell-server.
#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>

namespace vardell::server {

struct Options {
  QString listenAddress = QStringLiteral("0.0.0.0");
  std::uint16_t listenPort = 0;  // 0: any
  QString store;                 // a file, or "postgresql://..."
  QString spool;                 // a file
  QString control;               // a socket
  bool publish = true;
  bool killOnly = false;
};

enum class OptionsResult {
  Run,
  ShowText,  // --help, --version: the text is for standard output
  Misused,   // the text is one line that says what to do
};

// `arguments` without the program's name. `options` is untouched unless the result is Run.
[[nodiscard]] OptionsResult ParseOptions(const QStringList& arguments, Options* options,
                                         QString* text);

}  // namespace vardell::server
