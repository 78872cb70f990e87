// Where a store of PostgreSQL is, and what its failures mean to people. Pure.
#pragma once

#include <QString>

#include "server/Postgres.h"

namespace vardell::server {

struct PostgresAddress {
  QByteArray uri;  // with the password: never to be shown
  QString host;    // a name, an address or a socket's folder; empty: the usual one
  QString database;
  QString user;
};

// Throws std::runtime_error with a line for people, without anything that could be a password,
// where `location` cannot be read.
PostgresAddress ReadPostgresAddress(const QString& location);

QString Describe(const PostgresAddress& address);  // "anna's database at host"; no password

// Whether it may pass by itself: no answer, starting or stopping, no room, locked for too long.
bool IsPassing(const PostgresError& error);

// One line that says what to do.
QString WhatToDo(const PostgresError& error, const PostgresAddress& address);

}  // namespace vardell::server
