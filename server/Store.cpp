#include "server/Store.h"

#include "server/PostgresStore.h"
#include "server/SqliteStore.h"

namespace vardell::server {

bool IsPostgresLocation(const QString& location) {
  return location.startsWith(QLatin1String("postgresql://")) ||
         location.startsWith(QLatin1String("postgres://"));
}

std::unique_ptr<Store> OpenStore(const QString& location) {
  if (IsPostgresLocation(location)) return std::make_unique<PostgresStore>(location);
  return std::make_unique<SqliteStore>(location);
}

}  // namespace vardell::server
