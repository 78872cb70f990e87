// The Server's way from received bytes to names and records: frames are taken one by one, and each
// payload goes through every reader. Whatever is accepted must encode back to the same bytes.

#include <QByteArray>
#include <cstdint>
#include <cstdlib>

#include "Common Sources/Caps.h"
#include "link/Frame.h"
#include "link/MessageEncoding.h"

namespace {

using namespace vardell;

void Require(bool holds) {
  if (!holds) std::abort();
}

void ReadNames(QByteArrayView payload) {
  QString user, identifier;
  if (ParseNamesPayload(payload, &user, &identifier) != PayloadError::None) return;
  QByteArray again;
  AppendStringToData(again, user);
  AppendStringToData(again, identifier);
  Require(again == payload);
}

void ReadReport(QByteArrayView payload) {
  QString user, identifier;
  LimitsRecord record;
  if (ParseReportPayload(payload, &user, &identifier, &record) != PayloadError::None) return;
  Require(AppendLimitsRecordToData(user, identifier, record) == payload);
}

void ReadPid(QByteArrayView payload) {
  std::int32_t pid = 0;
  if (ParseKillPayload(payload, &pid) == PayloadError::None) Require(pid > 0);
}

void ReadWithTheCodec(QByteArrayView payload) {
  const QByteArray data = payload.toByteArray();
  qsizetype next = 0;
  (void)CopyStringFromData(data, 0, &next);
  (void)CopyStringFromData(data, next);
  (void)ReadLimitsRecordFromData(data, next);
  std::optional<QString> user, identifier;
  LimitsRecord record;
  (void)ReadLimitsImageFromBuffer(payload, &user, &identifier, &record);
}

void ReadPayload(QByteArrayView payload) {
  QString text;
  (void)ParseSinglePayload(payload, &text);
  ReadNames(payload);
  ReadReport(payload);
  ReadPid(payload);
  ReadWithTheCodec(payload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  QByteArrayView rest(bytes, static_cast<qsizetype>(size));
  ReadPayload(rest);
  RequestFrame frame;
  while (TakeFrame(&rest, &frame) == FrameStatus::Complete) {
    Require(frame.payload.size() + kRequestHeaderBytes <= kMaxRequestFrameBytes);
    ReadPayload(frame.payload);
  }
  return 0;
}
