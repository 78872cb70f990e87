#include "link/Frame.h"

#include <gtest/gtest.h>

#include "Common Sources/Caps.h"

namespace vardell {
namespace {

QByteArray Hex(const char* text) {
  return QByteArray::fromHex(text);
}

TEST(RequestFrames, AreHeaderAndPayload) {
  std::uint32_t reservedWord = 0;
  EXPECT_EQ(BuildRequestFrame(RequestKind::ApplicationStart, {}, reservedWord),
            Hex("000000090300000000"));
  EXPECT_EQ(BuildRequestFrame(RequestKind::FetchLimits, QByteArray(26, 'p'), reservedWord),
            Hex("000000230100000000") + QByteArray(26, 'p'));
  EXPECT_EQ(reservedWord, 0u);
}

TEST(RequestFrames, TheReservedWordIsSwappedInPlace) {
  std::uint32_t reservedWord = 0x01020304;
  EXPECT_EQ(BuildRequestFrame(RequestKind::KillProcess, {}, reservedWord),
            Hex("000000090701020304"));
  EXPECT_EQ(reservedWord, 0x04030201u);
}

TEST(RequestFrames, AreTakenOneByOne) {
  const QByteArray stream =
      Hex("0000000b0100000000aabb"
          "000000090600000000"
          "0000000a03000000");
  QByteArrayView rest(stream);
  RequestFrame frame;
  ASSERT_EQ(TakeFrame(&rest, &frame), FrameStatus::Complete);
  EXPECT_EQ(frame.kind, 1);
  EXPECT_EQ(frame.payload.toByteArray(), Hex("aabb"));
  ASSERT_EQ(TakeFrame(&rest, &frame), FrameStatus::Complete);
  EXPECT_EQ(frame.kind, 6);
  EXPECT_TRUE(frame.payload.isEmpty());
  EXPECT_EQ(TakeFrame(&rest, &frame), FrameStatus::Incomplete);
  EXPECT_EQ(frame.kind, 6);
  EXPECT_EQ(rest.size(), 8);
}

TEST(RequestFrames, AreIncompleteUntilTheirLastByte) {
  const QByteArray whole = Hex("0000000b0100000000aabb");
  for (qsizetype length = 0; length < whole.size(); ++length) {
    QByteArrayView rest = QByteArrayView(whole).first(length);
    RequestFrame frame;
    EXPECT_EQ(TakeFrame(&rest, &frame), FrameStatus::Incomplete) << length;
    EXPECT_EQ(rest.size(), length);
  }
}

TEST(RequestFrames, BadLengthsAreRefusedAtTheFourthByte) {
  struct Row {
    const char* behaviour;
    QByteArray bytes;
    FrameStatus status;
  };
  QByteArray largest = Hex("00004000") + QByteArray(kMaxRequestFrameBytes - 4, '\0');
  const Row rows[] = {
      {"a length of 0", Hex("00000000"), FrameStatus::Malformed},
      {"a length shorter than the header", Hex("00000008"), FrameStatus::Malformed},
      {"the largest frame", largest, FrameStatus::Complete},
      {"one byte above the cap", Hex("00004001"), FrameStatus::Malformed},
      {"a length of 2 GiB", Hex("7fffffff"), FrameStatus::Malformed},
      {"a length of 4 GiB less one", Hex("ffffffff"), FrameStatus::Malformed},
      {"three bytes of a bad length", Hex("ffffff"), FrameStatus::Incomplete},
  };
  ASSERT_EQ(kMaxRequestFrameBytes, 0x4000u);
  for (const Row& row : rows) {
    QByteArrayView rest(row.bytes);
    RequestFrame frame;
    EXPECT_EQ(TakeFrame(&rest, &frame), row.status) << row.behaviour;
  }
}

TEST(ReplyFrames, CountTheBodyAlone) {
  EXPECT_EQ(BuildReply("hello"), Hex("00000005") + "hello");
  EXPECT_EQ(BuildReply({}), Hex("00000000"));
  EXPECT_EQ(ReplyLength(BuildReply("hello")), 5u);
  EXPECT_EQ(ReplyLength(Hex("000000")), std::nullopt);
}

}  // namespace
}  // namespace vardell
