#include "server/HostAccounts.h"

#include <boost/asio/ip/address.hpp>

namespace vardell::server {
namespace {

bool IsHost(const QString& text) {
  boost::system::error_code error;
  (void)boost::asio::ip::make_address(text.toStdString(), error);
  return !error || text == QLatin1String("local");
}

}  // namespace

QString HostAccountName(const QString& user, const QString& host) {
  return user + QLatin1Char('@') + host;
}

QString UserOfHostAccount(const QString& name) {
  const qsizetype at = name.lastIndexOf(QLatin1Char('@'));
  return at > 0 && IsHost(name.mid(at + 1)) ? name.left(at) : QString();
}

}  // namespace vardell::server
