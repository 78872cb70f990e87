// What stands in the payload of a request: counted strings and the limits record in its packed
// form. Integers in payloads are little-endian (the native order of the machines served).
//
// Three forms of the same things:
//   data form    a growing QByteArray; what every request of the Agent uses
//   buffer form  a raw buffer and a position that the operation advances
//   Parse...     the Server's readers for bytes that may be anything: exact or refused
// No operation reads or writes outside the bytes it is given.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <cstdint>
#include <optional>
#include <span>

#include "link/LimitsRecord.h"

namespace vardell {

inline constexpr qsizetype kPackedRecordBytes = 43;

// --- Data form.

// Appends length and UTF-8 bytes; nothing at all where the string has no UTF-8 form (a lone
// surrogate). *outStartOffset is the data's size before, in both cases.
void AppendStringToData(QByteArray& data, const QString& string,
                        qsizetype* outStartOffset = nullptr);

// The string at `offset`; absent where the data ends before it does, or it is not UTF-8.
// *outNextOffset becomes offset + 4 + the length, as the length says, once the length is there.
std::optional<QString> CopyStringFromData(const QByteArray& data, qsizetype offset,
                                          qsizetype* outNextOffset = nullptr);

// The payload of a credit report: two strings and the packed record.
QByteArray AppendLimitsRecordToData(const QString& userName, const QString& appIdentifier,
                                    const LimitsRecord& record);

// The packed record at `offset`; bytes that the data does not have count as 0. A negative top-up
// time does not survive: 32 bits of it travel, and come back as an unsigned number of seconds.
LimitsRecord ReadLimitsRecordFromData(const QByteArray& data, qsizetype offset);

// --- Buffer form.

// Length and UTF-8 bytes at `position`, which is advanced and returned. What stands before the
// first lone surrogate is written, and of that as many whole characters as there is room for;
// nothing where there is no room for the length.
qsizetype WriteStringToBuffer(std::span<char> buffer, const QString& string, qsizetype& position);

// Absent for a length below 0 or above kMaxBufferStringBytes (position behind the length then), for
// bytes that are not UTF-8 or not all there (position advanced by the length), and where even the
// length is not there (position unchanged).
std::optional<QString> ReadStringFromBuffer(QByteArrayView buffer, qsizetype& position);

// False, absent: there are no 4 bytes at `position`, which then stays.
bool WriteUInt32ToBuffer(std::span<char> buffer, std::uint32_t value, qsizetype& position);
std::optional<std::uint32_t> ReadUInt32FromBuffer(QByteArrayView buffer, qsizetype& position);

// Two strings, then the 56 bytes of a record as it stands in memory. Returns 0 always. A string
// that cannot be read becomes absent; *outRecord is untouched where the image is not all there.
std::int32_t ReadLimitsImageFromBuffer(QByteArrayView buffer, std::optional<QString>* outUserName,
                                       std::optional<QString>* outAppIdentifier,
                                       LimitsRecord* outRecord);

// --- The Server's readers of a whole payload. Outputs are untouched unless the result is None.

enum class PayloadError {
  None,
  Truncated,  // ends within a field
  TooLong,    // a name above kMaxNameBytes
  NotUtf8,
  Surplus,  // bytes behind the last field
  NotAPid,  // kind 7: no decimal number from 1 to 2^31-1
};

// For a log line; never null.
const char* PayloadErrorText(PayloadError error);

[[nodiscard]] PayloadError ParseSinglePayload(QByteArrayView payload, QString* out);  // kind 4
[[nodiscard]] PayloadError ParseNamesPayload(QByteArrayView payload, QString* outUserName,
                                             QString* outAppIdentifier);  // kinds 1, 3, 5
[[nodiscard]] PayloadError ParseReportPayload(QByteArrayView payload, QString* outUserName,
                                              QString* outAppIdentifier,
                                              LimitsRecord* outRecord);  // kind 6
[[nodiscard]] PayloadError ParseKillPayload(QByteArrayView payload,
                                            std::int32_t* outPid);  // kind 7

}  // namespace vardell
