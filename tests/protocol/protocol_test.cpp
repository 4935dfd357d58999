#include "protocol/HandlerProtocol.h"

#include <gtest/gtest.h>

#include <string>

namespace {

namespace protocol = Pendrel::protocol;

TEST(ProtocolPacketHeader, IsTwoLittleEndianWordsRemainingFirst) {
  char header[protocol::kPacketHeaderSize] = {};
  protocol::WritePacketHeader(header, {0x01020304u, 0xA0B0C0D0u});
  const std::string bytes(header, sizeof header);
  EXPECT_EQ(bytes, std::string("\x04\x03\x02\x01\xD0\xC0\xB0\xA0", 8));
  const protocol::PacketHeader read = protocol::ReadPacketHeader(header);
  EXPECT_EQ(read.remaining, 0x01020304u);
  EXPECT_EQ(read.payload, 0xA0B0C0D0u);
}

TEST(ProtocolPacketHeader, HasTheWireSizes) {
  EXPECT_EQ(protocol::kPacketSize, 32768u);
  EXPECT_EQ(protocol::kMinPacketSize, 128u);
  EXPECT_EQ(protocol::kPacketHeaderSize, 8u);
}

TEST(ProtocolStartArguments, ArePipeNameModeAndExInThatOrder) {
  EXPECT_EQ(protocol::StartArgumentPrefix(protocol::EStartArgument::PipeName), L"_MN_=");
  EXPECT_EQ(protocol::StartArgumentPrefix(protocol::EStartArgument::Mode), L"_DM_=");
  EXPECT_EQ(protocol::StartArgumentPrefix(protocol::EStartArgument::ExValue), L"_EX_=");
  EXPECT_EQ(protocol::kExValue, 2);
  EXPECT_EQ(protocol::kConnectTimeLimitMs, 10000u);
}

TEST(ProtocolCommands, EachKindHasItsWord) {
  const struct {
    protocol::ECommand command;
    const char* word;
  } cases[] = {
      {protocol::ECommand::HandlerInfo, "RequestHandlerInfo"},
      {protocol::ECommand::TaskInfo, "RequestHandlerTaskInfo"},
      {protocol::ECommand::InputFileSize, "RequestInputFileSize"},
      {protocol::ECommand::LibVersion, "RequestLibVersion"},
      {protocol::ECommand::AllOutputFiles, "RequestAllOutputFiles"},
      {protocol::ECommand::CreateSession, "OnCreateSession"},
      {protocol::ECommand::CloseSession, "OnCloseSession"},
  };
  ASSERT_EQ(std::size(cases), protocol::kCommandCount);
  for (const auto& c : cases) EXPECT_EQ(protocol::CommandWord(c.command), c.word);
}

TEST(ProtocolQuery, AppendsKeyAndValueAsTheyStand) {
  std::string message(protocol::CommandWord(protocol::ECommand::TaskInfo));
  protocol::AppendQueryPair(message, protocol::EQueryKey::TaskCode, "a&b=c");
  EXPECT_EQ(message, "RequestHandlerTaskInfo&TaskCode=a&b=c");
}

TEST(ProtocolQuery, SessionKeysGoOutInTheirOrder) {
  std::string query;
  for (const protocol::EQueryKey key : protocol::kSessionKeys) {
    protocol::AppendQueryPair(query, key, "v");
  }
  EXPECT_EQ(query,
            "&SessionKey=v&User=v&HandleTaskID=v&HandlerCode=v&HandlerTaskCode=v&LogFileName=v"
            "&TaskTimeoutS=v");
}

TEST(ProtocolAnswerKeys, AreTheParameterNamesTheLibraryReads) {
  EXPECT_STREQ(protocol::AnswerKey(protocol::EAnswerKey::Name), L"Name");
  EXPECT_STREQ(protocol::AnswerKey(protocol::EAnswerKey::Description), L"Description");
  EXPECT_STREQ(protocol::AnswerKey(protocol::EAnswerKey::Version), L"Version");
  EXPECT_STREQ(protocol::AnswerKey(protocol::EAnswerKey::InputFileSize), L"InputFileSize");
  EXPECT_STREQ(protocol::AnswerKey(protocol::EAnswerKey::LibVersion), L"LibVersion");
  EXPECT_STREQ(protocol::QueryKey(protocol::EQueryKey::TaskTimeoutS), L"TaskTimeoutS");
}

}  // namespace
