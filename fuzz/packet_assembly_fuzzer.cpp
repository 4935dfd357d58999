// The channel's packet reassembly, fed without a pipe.
//
// Two kinds of run, chosen by the input:
// - arbitrary packets, as a hostile peer could send them, through the assembler the way the
//   channel's worker drives it (the server end adopts a peer's larger packet size). Every
//   message it completes must be exactly the payloads of its packets, and never larger than
//   the limit;
// - messages cut by the channel's own packet writer, whose packets may be smaller than the
//   receiver's packet size (a handler free to choose its own). A message within the limit
//   must come back whole and unchanged; a larger one must be refused as too large.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "pipe/detail/PacketFraming.h"

namespace {

using Pendrel::detail::kPacketHeaderSize;
using Pendrel::detail::MessageAssembler;
using Pendrel::detail::PacketWriter;
using EStep = MessageAssembler::EStep;

// Packet sizes around the edges: the smallest the channel writes (128), the default, and
// sizes a handler might pick.
constexpr std::array<std::uint32_t, 7> kPacketSizes{9, 16, 128, 200, 4096, 32768, 65536};
constexpr std::array<std::uint64_t, 9> kLimits{0,
                                               1,
                                               100,
                                               32759,
                                               32760,
                                               32761,
                                               1 << 20,
                                               std::uint64_t{1} << 30,
                                               std::numeric_limits<std::uint64_t>::max()};

std::uint32_t WireSize(std::uint32_t packetSize) {
  return std::max<std::uint32_t>(packetSize, 128);
}

void FeedArbitraryPackets(FuzzedDataProvider& input, std::uint32_t packetSize,
                          std::uint64_t limit) {
  const bool server = input.ConsumeBool();
  MessageAssembler assembler;
  std::string expected;
  while (input.remaining_bytes() > 0) {
    const std::size_t length =
        input.ConsumeIntegralInRange<std::size_t>(0, 2 * std::size_t{WireSize(packetSize)} + 16);
    std::string packet = input.ConsumeBytesAsString(length);
    if (packet.size() >= kPacketHeaderSize && input.ConsumeBool()) {
      // A header chosen outright: the assembler's checks are what is under test.
      Pendrel::detail::PutLittleEndian32(packet.data(), input.ConsumeIntegral<std::uint32_t>());
      Pendrel::detail::PutLittleEndian32(packet.data() + 4, input.ConsumeIntegral<std::uint32_t>());
    }
    if (server && packet.size() > packetSize)
      packetSize = static_cast<std::uint32_t>(packet.size());

    const EStep step = assembler.Add(packet, WireSize(packetSize), limit);
    if (step == EStep::Invalid || step == EStep::TooLarge) return;  // the channel gives up
    const std::uint32_t payload = Pendrel::detail::GetLittleEndian32(packet.data() + 4);
    PENDREL_FUZZ_CHECK(payload <= packet.size() - kPacketHeaderSize);
    expected.append(packet, kPacketHeaderSize, payload);
    if (step == EStep::Complete) {
      const std::string message = assembler.TakeMessage();
      PENDREL_FUZZ_CHECK(message == expected);
      PENDREL_FUZZ_CHECK(message.size() <= limit);
      PENDREL_FUZZ_CHECK(!assembler.InMessage());
      expected.clear();
    } else {
      PENDREL_FUZZ_CHECK(assembler.InMessage());
    }
  }
}

void RoundTripMessages(FuzzedDataProvider& input, std::uint32_t senderSize,
                       std::uint32_t receiverSize, std::uint64_t limit) {
  const std::uint32_t senderWire = WireSize(senderSize);
  // The receiving server end adopts larger packets, so it is never smaller than the sender.
  const std::uint32_t receiverWire = std::max(WireSize(receiverSize), senderWire);
  PacketWriter writer;
  while (input.remaining_bytes() > 0) {
    const std::string message = input.ConsumeRandomLengthString(1 << 16);
    MessageAssembler assembler;
    writer.Begin(message, senderWire);
    EStep step = EStep::Partial;
    while (writer.Active()) {
      const std::string_view packet = writer.CurrentPacket();
      PENDREL_FUZZ_CHECK(packet.size() == senderWire);
      step = assembler.Add(packet, receiverWire, limit);
      writer.PacketSent();
      if (step != EStep::Partial) break;
    }
    if (message.size() <= limit) {
      PENDREL_FUZZ_CHECK(step == EStep::Complete);
      PENDREL_FUZZ_CHECK(!writer.Active());
      PENDREL_FUZZ_CHECK(assembler.TakeMessage() == message);
    } else {
      PENDREL_FUZZ_CHECK(step == EStep::TooLarge);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::uint32_t packetSize = input.PickValueInArray(kPacketSizes);
  const std::uint64_t limit = input.PickValueInArray(kLimits);
  if (input.ConsumeBool()) {
    RoundTripMessages(input, packetSize, input.PickValueInArray(kPacketSizes), limit);
  } else {
    FeedArbitraryPackets(input, packetSize, limit);
  }
  return 0;
}
