#include "server/Options.h"

#include <optional>

#include "Common Sources/TestHooks.h"
#include "server/Store.h"

namespace vardell::server {
namespace {

constexpr char kHelp[] =
    "Usage: vardell-server [OPTION]...\n"
    "Keeps limits and credit, answers the agents, and ends processes on request.\n"
    "\n"
    "  --listen ADDR:PORT  where agents are answered (default 0.0.0.0:0; port 0: any)\n"
    "  --store FILE|URL    where limits and credit are kept: a file, or a database that\n"
    "                      several Servers may share, postgresql://USER@HOST/DATABASE\n"
    "                      (default /var/lib/vardell/vardell.sqlite)\n"
    "  --spool FILE        what the store cannot take at the moment\n"
    "                      (default: the store's FILE.spool, /var/lib/vardell/spool for a URL)\n"
    "  --control PATH      socket for vardellctl (default /run/vardell/control.sock)\n"
    "  --no-publish        do not announce the service to the network\n"
    "  --kill-only         only end processes on request: for machines of a network\n"
    "                      whose Server is another one\n"
    "  --help, --version   show this, or the version, and stop\n";

bool ParseEndpoint(const QString& text, Options* options) {
  const qsizetype colon = text.lastIndexOf(QLatin1Char(':'));
  if (colon <= 0) return false;
  QString address = text.left(colon);
  const bool bracketed = address.startsWith(QLatin1Char('[')) && address.endsWith(QLatin1Char(']'));
  if (bracketed) address = address.mid(1, address.size() - 2);
  if (address.contains(QLatin1Char(':')) != bracketed) return false;
  const QString digits = text.mid(colon + 1);
  bool isNumber = false;
  const ushort port = digits.toUShort(&isNumber);
  if (!isNumber || digits != QString::number(port)) return false;
  options->listenAddress = address;
  options->listenPort = port;
  return true;
}

OptionsResult Misuse(const QString& what, QString* text) {
  *text = what + QStringLiteral("; see vardell-server --help");
  return OptionsResult::Misused;
}

// The value of an option: behind its "=", or the next argument.
std::optional<QString> TakeValue(const std::optional<QString>& attached, QStringList* rest) {
  if (attached) return attached;
  if (rest->isEmpty()) return std::nullopt;
  return rest->takeFirst();
}

QString SpoolOf(const QString& store) {
  if (IsPostgresLocation(store)) return ProductPath(QLatin1String(kDefaultSpoolPath));
  return store + QStringLiteral(".spool");
}

bool IsSwitch(const QString& name, Options* options) {
  if (name == QLatin1String("--no-publish")) {
    options->publish = false;
  } else if (name == QLatin1String("--kill-only")) {
    options->killOnly = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace

OptionsResult ParseOptions(const QStringList& arguments, Options* options, QString* text) {
  Options parsed;
  parsed.store = ProductPath(QLatin1String(kDefaultStorePath));
  parsed.control = ProductPath(QStringLiteral("/run/vardell/control.sock"));
  QStringList rest = arguments;
  while (!rest.isEmpty()) {
    const QString argument = rest.takeFirst();
    const qsizetype equals = argument.indexOf(QLatin1Char('='));
    const QString name = argument.left(equals);
    std::optional<QString> attached;
    if (equals >= 0) attached = argument.mid(equals + 1);

    if (argument == QLatin1String("--help")) {
      *text = QLatin1String(kHelp);
      return OptionsResult::ShowText;
    }
    if (argument == QLatin1String("--version")) {
      *text = QStringLiteral("vardell-server " VARDELL_VERSION "\n");
      return OptionsResult::ShowText;
    }
    if (!attached && IsSwitch(name, &parsed)) continue;

    const bool takesValue = name == QLatin1String("--listen") || name == QLatin1String("--store") ||
                            name == QLatin1String("--spool") || name == QLatin1String("--control");
    if (!takesValue) return Misuse(QStringLiteral("unknown option \"%1\"").arg(argument), text);
    const std::optional<QString> value = TakeValue(attached, &rest);
    if (!value || value->isEmpty()) {
      return Misuse(QStringLiteral("option %1 needs a value").arg(name), text);
    }
    if (name == QLatin1String("--store")) {
      parsed.store = *value;
    } else if (name == QLatin1String("--spool")) {
      parsed.spool = *value;
    } else if (name == QLatin1String("--control")) {
      parsed.control = *value;
    } else if (!ParseEndpoint(*value, &parsed)) {
      return Misuse(
          QStringLiteral("--listen needs ADDR:PORT, such as 127.0.0.1:0, not \"%1\"").arg(*value),
          text);
    }
  }
  if (parsed.spool.isEmpty()) parsed.spool = SpoolOf(parsed.store);
  *options = parsed;
  return OptionsResult::Run;
}

}  // namespace vardell::server
