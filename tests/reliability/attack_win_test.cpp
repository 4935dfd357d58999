// The pipe's security descriptor, read back from the system: a DACL (never a NULL one, which
// would let everybody in) that grants the current user and SYSTEM, and nobody else. And the
// packet size a handler can make the host adopt: Windows pipes carry packets of any size
// (Linux sockets only up to their send buffer, see tests/pipe/endpoint_posix_test.cpp).
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// After windows.h:
#include <aclapi.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pipe/ChannelFailure.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/support/TestProcess.h"

namespace {

// The SID of the user this process runs as.
std::vector<BYTE> CurrentUserSid() {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) return {};
  DWORD size = 0;
  ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<BYTE> buffer(size);
  std::vector<BYTE> sid;
  if (size != 0 && ::GetTokenInformation(token, TokenUser, buffer.data(), size, &size)) {
    const PSID user = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
    sid.assign(static_cast<BYTE*>(user), static_cast<BYTE*>(user) + ::GetLengthSid(user));
  }
  ::CloseHandle(token);
  return sid;
}

std::vector<BYTE> SystemSid() {
  DWORD size = SECURITY_MAX_SID_SIZE;
  std::vector<BYTE> sid(size);
  if (!::CreateWellKnownSid(WinLocalSystemSid, nullptr, sid.data(), &size)) return {};
  sid.resize(size);
  return sid;
}

TEST(PipeSecurity, DaclGrantsOnlyTheCurrentUserAndSystem) {
  const std::wstring name = pendrel_test::UniqueTestPipeName("sd");
  Pendrel::detail::PipeTransport server;
  ASSERT_EQ(server.Listen(name), 0u);
  // A handle of our own with the right to read the descriptor: this user may open the pipe.
  const std::wstring path = L"\\\\.\\pipe\\" + name;
  const HANDLE pipe = ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | READ_CONTROL, 0,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(pipe, INVALID_HANDLE_VALUE) << "error " << ::GetLastError();

  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = ::GetSecurityInfo(pipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                        nullptr, &dacl, nullptr, &descriptor);
  ::CloseHandle(pipe);
  if (error == ERROR_NOT_SUPPORTED || error == ERROR_CALL_NOT_IMPLEMENTED) {
    GTEST_SKIP() << "this system cannot read a pipe's security descriptor (error " << error << ")";
  }
  ASSERT_EQ(error, static_cast<DWORD>(ERROR_SUCCESS));
  ASSERT_NE(descriptor, nullptr);
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  ASSERT_TRUE(::GetSecurityDescriptorControl(descriptor, &control, &revision));
  EXPECT_TRUE(control & SE_DACL_PRESENT);
  ASSERT_NE(dacl, nullptr) << "a NULL DACL lets everybody in";

  const std::vector<BYTE> user = CurrentUserSid();
  const std::vector<BYTE> system = SystemSid();
  ASSERT_FALSE(user.empty());
  ASSERT_FALSE(system.empty());
  bool userGranted = false;
  bool systemGranted = false;
  EXPECT_EQ(dacl->AceCount, 2u);
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* ace = nullptr;
    ASSERT_TRUE(::GetAce(dacl, i, &ace));
    const auto* header = static_cast<const ACE_HEADER*>(ace);
    ASSERT_EQ(header->AceType, ACCESS_ALLOWED_ACE_TYPE) << "ACE " << i;
    const auto* allowed = static_cast<const ACCESS_ALLOWED_ACE*>(ace);
    const PSID sid = const_cast<DWORD*>(&allowed->SidStart);
    if (::EqualSid(sid, const_cast<BYTE*>(user.data()))) {
      userGranted = true;
    } else if (::EqualSid(sid, const_cast<BYTE*>(system.data()))) {
      systemGranted = true;
    } else {
      ADD_FAILURE() << "ACE " << i << " grants somebody else";
    }
  }
  EXPECT_TRUE(userGranted);
  EXPECT_TRUE(systemGranted);
  ::LocalFree(descriptor);
}

// A handler announcing 2 MiB packets is refused at its first one: the host does not adopt
// the size, which every later message of the host would be padded to.
TEST(HandlerPacketSizeCap, TwoMebibytePacketsAreRefused) {
  pendrel_reliability::FaultHost host(L"--packet-size 2097152");
  ASSERT_EQ(host.StartResult(), CTolvane::Ok) << host.ErrorMessage();
  Pendrel::CResponse response;
  EXPECT_EQ(host.handler.HandleRequest(pendrel_reliability::FileRequest(L"big", "x"), response),
            CTolvane::ChannelError);
  EXPECT_EQ(host.Failure(), pendrel_reliability::RefusedPacket(Pendrel::kPacketTooLargeCode))
      << host.ErrorMessage();
}

// Up to 1 MiB the size is adopted and messages go both ways.
TEST(HandlerPacketSizeCap, OneMebibytePacketsAreAdopted) {
  pendrel_reliability::FaultHost host(L"--packet-size 1048576");
  ASSERT_EQ(host.StartResult(), CTolvane::Ok) << host.ErrorMessage();
  EXPECT_EQ(pendrel_reliability::EchoProblem(host.handler, L"big", std::string(3 << 20, 'b')), "");
}

}  // namespace
