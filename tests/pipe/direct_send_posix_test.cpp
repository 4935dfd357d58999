// Linux: a small message posted to an idle, connected channel is written by the posting
// thread itself, so it is on the wire by the time Post returns; anything else goes through
// the worker, in order.
#include <gtest/gtest.h>

#include <string>

#include "pipe/NamedPipeChannel.h"
#include "pipe/detail/PacketFraming.h"
#include "tests/pipe/PipeTestSupport.h"

namespace pendrel_test {
namespace {

using Pendrel::NamedPipeChannel;

constexpr std::size_t kRoom = 32768 - 8;

// The payload of one packet as the channel frames it: remaining, length, payload, zeros.
std::string FramedPacket(std::uint32_t remaining, const std::string& payload) {
  std::string packet(32768, '\0');
  Pendrel::detail::PutLittleEndian32(&packet[0], remaining);
  Pendrel::detail::PutLittleEndian32(&packet[4], static_cast<std::uint32_t>(payload.size()));
  packet.replace(8, payload.size(), payload);
  return packet;
}

TEST(PipeChannelDirectSend, SmallMessageIsOnTheWireWhenPostReturns) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  for (const std::string& message : {std::string("ping"), std::string(), std::string(kRoom, 'f')}) {
    server.Post(message);
    std::string packet;
    // No waiting: the packet must be readable at once.
    ASSERT_TRUE(client.ReadNow(packet)) << message.size();
    EXPECT_EQ(packet, FramedPacket(0, message));
  }
}

TEST(PipeChannelDirectSend, LargerMessageAndWhatFollowsItKeepTheirOrder) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string large = PatternBytes(3 * kRoom + 5);
  server.Post(large);    // through the worker: more than one packet
  server.Post("after");  // by whichever thread, never before the last packet of `large`
  std::string packet;
  for (std::uint32_t index = 0; index < 4; ++index) {
    ASSERT_TRUE(client.Read(packet)) << index;
    const std::size_t length = index < 3 ? kRoom : 5;
    EXPECT_EQ(packet, FramedPacket(3 - index, large.substr(index * kRoom, length))) << index;
  }
  ASSERT_TRUE(client.Read(packet));
  EXPECT_EQ(packet, FramedPacket(0, "after"));
}

}  // namespace
}  // namespace pendrel_test
