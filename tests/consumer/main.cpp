// Uses the installed library the way a host does; exits non-zero if anything is off.
#include <cstdio>

#include "message/CMimeFile.h"
#include "message/CRequest.h"
#include "message/CResponse.h"

// Built with C++14 as the compiler's default: the package's targets must raise it.
static_assert(__cplusplus >= 201703L, "pendrel::pendrel asks for C++17");

int main() {
  Pendrel::CRequest request;
  request.Command = Pendrel::SIMPLEX;
  request.RequestParams[L"LANG"] = L"en";
  const Pendrel::CResponse response(std::wstring(L"none"));
  const bool ok = Pendrel::Version == 4 && request.IsCreationSession() &&
                  request.GetRequestParamsString() == L"?lang=en" &&
                  Pendrel::GetMimeTypeName(Pendrel::Pdf) == "application/pdf" &&
                  response.Parameters.at(L"error") == L"none";
  std::printf("pendrel %u from the installed package: %s\n", Pendrel::Version,
              ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
