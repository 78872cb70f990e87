#include "link/Frame.h"

#include <gtest/gtest.h>

#include "Common Sources/Caps.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using test::Hex;

TEST(Frames, TheReservedWordIsSwappedInPlaceAndReplyLengthsNeedFourBytes) {
  std::uint32_t reservedWord = 0x01020304;
  EXPECT_EQ(BuildRequestFrame(RequestKind::KillProcess, "ab", reservedWord),
            Hex("0000000b 07 01020304 6162"));
  EXPECT_EQ(reservedWord, 0x04030201u);
  EXPECT_EQ(ReplyLength(BuildReply("hello")), 5u);
  EXPECT_EQ(ReplyLength(Hex("000000")), std::nullopt);
}

TEST(Frames, AreTakenOneByOneOnceTheirLastByteIsThere) {
  const QByteArray first = Hex("0000000b0100000000aabb");
  const QByteArray second = Hex("000000090600000000");
  RequestFrame frame{77, {}};
  for (qsizetype length = 0; length < first.size(); ++length) {
    QByteArrayView rest = QByteArrayView(first).first(length);
    EXPECT_EQ(TakeFrame(&rest, &frame), FrameStatus::Incomplete) << length;
    EXPECT_EQ(rest.size(), length);
    EXPECT_EQ(frame.kind, 77);
  }
  const QByteArray stream = first + second;
  QByteArrayView rest(stream);
  EXPECT_EQ(TakeFrame(&rest, &frame), FrameStatus::Complete);
  EXPECT_EQ(frame.kind, 1);
  EXPECT_EQ(frame.payload.toByteArray(), Hex("aabb"));
  EXPECT_EQ(TakeFrame(&rest, &frame), FrameStatus::Complete);
  EXPECT_EQ(frame.kind, 6);
  EXPECT_TRUE(frame.payload.isEmpty() && rest.isEmpty());
}

TEST(Frames, BadLengthsAreRefusedAtTheFourthByte) {
  ASSERT_EQ(kMaxRequestFrameBytes, 0x4000u);
  const std::pair<QByteArray, FrameStatus> rows[] = {
      {Hex("00000000"), FrameStatus::Malformed},
      {Hex("00000008"), FrameStatus::Malformed},
      {Hex("00004000") + QByteArray(kMaxRequestFrameBytes - 4, '\0'), FrameStatus::Complete},
      {Hex("00004001"), FrameStatus::Malformed},
      {Hex("7fffffff"), FrameStatus::Malformed},
      {Hex("ffffffff"), FrameStatus::Malformed},
      {Hex("ffffff"), FrameStatus::Incomplete},
  };
  for (const auto& [bytes, status] : rows) {
    QByteArrayView rest(bytes);
    RequestFrame frame;
    EXPECT_EQ(TakeFrame(&rest, &frame), status) << bytes.left(4).toHex().constData();
  }
}

}  // namespace
}  // namespace vardell
