// The command line and configuration file of `pendrel serve`, the metrics page, and the
// access log's number and time texts.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tools/server/Metrics.h"
#include "tools/server/Reply.h"
#include "tools/server/ServeOptions.h"
#include "tools/server/Text.h"

namespace PendrelServer {
namespace {

// The access log's appenders write what printf's formats write.
TEST(ServeLogText, AppendersWriteWhatPrintfWrites) {
  const std::uint64_t integers[] = {0, 7, 10, 200, 65535, 4294967295ull, 18446744073709551615ull};
  for (const std::uint64_t value : integers) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "%llu", static_cast<unsigned long long>(value));
    std::string out = "x";
    AppendDecimal(out, value);
    EXPECT_EQ(out, std::string("x") + expected);
    std::snprintf(expected, sizeof expected, "%016llx", static_cast<unsigned long long>(value));
    out.clear();
    AppendHex16(out, value);
    EXPECT_EQ(out, expected);
  }
  const double seconds[] = {0,         0.000001,    0.0000004, 0.0000016, 0.000123,
                            0.0421337, 0.9999994,   0.9999996, 1,         2.5,
                            59.123456, 3600.000001, 86400.75};
  for (const double value : seconds) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "%.6f", value);
    std::string out;
    AppendFixed6(out, value);
    EXPECT_EQ(out, expected) << value;
  }
}

TEST(ServeLogText, WritesUtcTimeToTheMillisecond) {
  using namespace std::chrono;
  struct {
    std::int64_t Millis;  // since 1970-01-01T00:00:00Z
    const char* Text;
  } const cases[] = {
      {0, "1970-01-01T00:00:00.000Z"},
      {1795423800123, "2026-11-23T08:50:00.123Z"},
      {951868799999, "2000-02-29T23:59:59.999Z"},
      {4102444800007, "2100-01-01T00:00:00.007Z"},
  };
  for (const auto& c : cases) {
    std::string out;
    AppendUtcTime(out, system_clock::time_point(
                           duration_cast<system_clock::duration>(milliseconds(c.Millis))));
    EXPECT_EQ(out, c.Text);
  }
}

TEST(ServeByteSize, ReadsNumbersAndUnits) {
  struct {
    const char* Text;
    bool Ok;
    std::uint64_t Bytes;
  } const kCases[] = {
      {"4096", true, 4096},
      {"256MiB", true, 256ull << 20},
      {"64KiB", true, 64 << 10},
      {"1GiB", true, 1ull << 30},
      {"10MB", true, 10000000},
      {"2 KiB", true, 2048},
      {"5K", true, 5120},
      {"7B", true, 7},
      {"", false, 0},
      {"MiB", false, 0},
      {"0", false, 0},
      {"-1", false, 0},
      {"12QB", false, 0},
      {"1.5MiB", false, 0},
      {"99999999999999999999GiB", false, 0},
  };
  for (const auto& c : kCases) {
    std::uint64_t bytes = 0;
    EXPECT_EQ(ParseByteSize(c.Text, bytes), c.Ok) << c.Text;
    if (c.Ok) {
      EXPECT_EQ(bytes, c.Bytes) << c.Text;
    }
  }
}

TEST(ServeCommandLine, ReadsEveryOption) {
  CServeCommandLine cl;
  std::string error;
  ASSERT_TRUE(
      ParseServeCommandLine({"--listen", "127.0.0.1:1", "--listen=[::1]:2", "--mount", "/a=/bin/a",
                             "--mount=/b/=/bin/b", "--pool-min", "2", "--pool-max=5", "--timeout",
                             "9", "--max-body", "1MiB", "--mode", "-3", "--workers", "7"},
                            cl, error))
      << error;
  EXPECT_EQ(cl.Listen, (std::vector<std::string>{"127.0.0.1:1", "[::1]:2"}));
  ASSERT_EQ(cl.Mounts.size(), 2u);
  EXPECT_EQ(cl.Mounts[1].first, "/b/");
  EXPECT_EQ(cl.Mounts[1].second, "/bin/b");
  EXPECT_EQ(cl.PoolMin, 2u);
  EXPECT_EQ(cl.PoolMax, 5u);
  EXPECT_EQ(cl.TimeoutS, 9);
  EXPECT_EQ(cl.MaxBody, 1u << 20);
  EXPECT_EQ(cl.Mode, -3);
  EXPECT_EQ(cl.Workers, 7u);

  CServeSettings settings;
  bool unreadable = true;
  ASSERT_TRUE(LoadServeSettings(cl, settings, error, unreadable)) << error;
  EXPECT_FALSE(unreadable);
  ASSERT_EQ(settings.Mounts.size(), 2u);
  EXPECT_EQ(settings.Mounts[1].Prefix, "/b");  // the "/" at the end goes
  const CTolvane::CHandlerPoolSettings& pool = settings.Mounts[0].Pool;
  EXPECT_EQ(pool.Program, L"/bin/a");
  EXPECT_EQ(pool.MinHandlers, 2u);
  EXPECT_EQ(pool.MaxHandlers, 5u);
  EXPECT_EQ(pool.ResponseTimeoutS, 9);
  EXPECT_EQ(pool.Mode, -3);
  EXPECT_EQ(settings.MaxBody, 1u << 20);
  EXPECT_EQ(settings.Workers, 7u);
}

TEST(ServeCommandLine, RefusesWrongCalls) {
  const std::vector<std::vector<std::string>> kCases = {
      {},
      {"--mount"},
      {"--mount", "/a"},
      {"--mount", "=/bin/a"},
      {"--mount", "/a=/bin/a", "--pool-min", "x"},
      {"--mount", "/a=/bin/a", "--pool-max", "0"},
      {"--mount", "/a=/bin/a", "--pool-min", "3", "--pool-max", "2"},
      {"--mount", "/a=/bin/a", "--max-body", "lots"},
      {"--mount", "/a=/bin/a", "--workers", "0"},
      {"--mount", "/a=/bin/a", "--frobnicate"},
      {"--mount", "/a=/bin/a", "extra"},
  };
  for (const auto& arguments : kCases) {
    CServeCommandLine cl;
    std::string error;
    EXPECT_FALSE(ParseServeCommandLine(arguments, cl, error))
        << (arguments.empty() ? "" : arguments.back());
    EXPECT_FALSE(error.empty());
  }
}

TEST(ServeCommandLine, RefusesBadOrTwiceMountedPrefixes) {
  for (const char* mount : {"a=/bin/a", "/_x=/bin/a", "/a?b=/bin/a"}) {
    CServeCommandLine cl;
    std::string error;
    ASSERT_TRUE(ParseServeCommandLine({"--mount", mount}, cl, error)) << error;
    CServeSettings settings;
    bool unreadable = false;
    EXPECT_FALSE(LoadServeSettings(cl, settings, error, unreadable)) << mount;
  }
  CServeCommandLine cl;
  std::string error;
  ASSERT_TRUE(ParseServeCommandLine({"--mount", "/a=/x", "--mount", "/a/=/y"}, cl, error));
  CServeSettings settings;
  bool unreadable = false;
  EXPECT_FALSE(LoadServeSettings(cl, settings, error, unreadable));
  EXPECT_NE(error.find("mounted twice"), std::string::npos) << error;
}

class ServeConfigFile : public ::testing::Test {
 protected:
  void SetUp() override {
    m_path = ::testing::TempDir() + "pendrel-serve-options-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".toml";
  }
  void TearDown() override { std::remove(m_path.c_str()); }
  bool Load(const std::string& text, CServeSettings& settings, std::string& error,
            std::vector<std::string> more = {}) {
    std::ofstream(m_path) << text;
    CServeCommandLine cl;
    std::vector<std::string> arguments = {"--config", m_path};
    arguments.insert(arguments.end(), more.begin(), more.end());
    if (!ParseServeCommandLine(arguments, cl, error)) return false;
    bool unreadable = false;
    return LoadServeSettings(cl, settings, error, unreadable);
  }
  std::string m_path;
};

TEST_F(ServeConfigFile, ReadsTheDocumentedShape) {
  CServeSettings settings;
  std::string error;
  ASSERT_TRUE(Load(R"(listen = ["127.0.0.1:8080", "127.0.0.1:8081"]
max_body = "256MiB"
workers = 12
drain_s = 4
[[handler]]
mount = "/textstats"
program = "/usr/local/bin/pendrel-text-stats"
arguments = "--lang en"
mode = 2
timeout_s = 120
pool = { min = 1, max = 8, max_requests = 10000, idle_s = 60, queue = 256, queue_wait_s = 30, stop_grace_ms = 250 }
[[handler]]
mount = "/b"
program = "/bin/b"
)",
                   settings, error))
      << error;
  EXPECT_EQ(settings.Listen, (std::vector<std::string>{"127.0.0.1:8080", "127.0.0.1:8081"}));
  EXPECT_EQ(settings.MaxBody, 256ull << 20);
  EXPECT_EQ(settings.Workers, 12u);
  EXPECT_EQ(settings.DrainMs, 4000u);
  ASSERT_EQ(settings.Mounts.size(), 2u);
  const CMountSettings& m = settings.Mounts[0];
  EXPECT_EQ(m.Prefix, "/textstats");
  EXPECT_EQ(m.Pool.Program, L"/usr/local/bin/pendrel-text-stats");
  EXPECT_EQ(m.Pool.Arguments, L"--lang en");
  EXPECT_EQ(m.Pool.Mode, 2);
  EXPECT_EQ(m.Pool.ResponseTimeoutS, 120);
  EXPECT_EQ(m.Pool.MinHandlers, 1u);
  EXPECT_EQ(m.Pool.MaxHandlers, 8u);
  EXPECT_EQ(m.Pool.MaxRequests, 10000u);
  EXPECT_EQ(m.Pool.IdleMs, 60000u);
  EXPECT_EQ(m.Pool.QueueLength, 256u);
  EXPECT_EQ(m.Pool.QueueWaitMs, 30000u);
  EXPECT_EQ(m.Pool.StopGracePeriodMs, 250u);
  EXPECT_EQ(m.Pool.ChildOutput, CTolvane::EChildOutput::HostStderr);
  EXPECT_EQ(settings.Mounts[1].Pool.MaxHandlers, CTolvane::CHandlerPoolSettings().MaxHandlers);
}

TEST_F(ServeConfigFile, CommandLineGoesOverTheFile) {
  CServeSettings settings;
  std::string error;
  ASSERT_TRUE(Load(
      "listen = [\"127.0.0.1:1\"]\nmax_body = 10\n[[handler]]\nmount = \"/a\"\n"
      "program = \"/bin/a\"\n",
      settings, error, {"--listen", "127.0.0.1:2", "--max-body", "20", "--mount", "/c=/bin/c"}))
      << error;
  EXPECT_EQ(settings.Listen, (std::vector<std::string>{"127.0.0.1:2"}));
  EXPECT_EQ(settings.MaxBody, 20u);
  ASSERT_EQ(settings.Mounts.size(), 2u);
  EXPECT_EQ(settings.Mounts[1].Prefix, "/c");
}

TEST_F(ServeConfigFile, RefusesWrongFilesNamingTheKey) {
  const struct {
    const char* Text;
    const char* Named;
  } kCases[] = {
      {"listen = [", "line 1"},
      {"speed = 1\n", "speed"},
      {"listen = \"127.0.0.1:1\"\n", "listen"},
      {"max_body = \"big\"\n", "max_body"},
      {"max_body = -5\n", "max_body"},
      {"workers = 0\n", "workers"},
      {"handler = 1\n", "handler"},
      {"[[handler]]\nprogram = \"/bin/a\"\n", "mount"},
      {"[[handler]]\nmount = \"/a\"\n", "program"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\ncolour = 1\n", "colour"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\ntimeout_s = 0\n", "timeout_s"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\nmode = \"x\"\n", "mode"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\npool = 3\n", "pool"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\npool = { size = 3 }\n", "pool.size"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\npool = { min = 4, max = 2 }\n",
       "pool.min"},
      {"[[handler]]\nmount = \"/a\"\nprogram = \"/bin/a\"\npool = { max = 1.5 }\n", "pool.max"},
      {"", "no mount"},
  };
  for (const auto& c : kCases) {
    CServeSettings settings;
    std::string error;
    EXPECT_FALSE(Load(c.Text, settings, error)) << c.Text;
    EXPECT_NE(error.find(c.Named), std::string::npos) << c.Text << " -> " << error;
  }
}

TEST(ServeConfigFileMissing, SaysTheFileCannotBeOpened) {
  CServeCommandLine cl;
  std::string error;
  ASSERT_TRUE(ParseServeCommandLine({"--config", "/nonexistent/pendrel.toml"}, cl, error));
  CServeSettings settings;
  bool unreadable = false;
  EXPECT_FALSE(LoadServeSettings(cl, settings, error, unreadable));
  EXPECT_TRUE(unreadable);
  EXPECT_NE(error.find("/nonexistent/pendrel.toml"), std::string::npos);
}

TEST(ServeMetrics, CountsByMountAndStatusWithCumulativeBuckets) {
  CMetrics metrics;
  metrics.Record("/a", 200, 0.0004, 10, 20);
  metrics.Record("/a", 200, 0.003, 1, 2);
  metrics.Record("/a", 504, 30, 0, 0);
  metrics.Record("", 404, 0.0001, 5, 5);
  CTolvane::CHandlerPoolStats stats;
  stats.Idle = 3;
  stats.Killed = 2;
  const std::string page = metrics.Page({{"/a\"b", stats}});
  for (const char* line : {
           "pendrel_http_requests_total{mount=\"/a\",status=\"200\"} 2\n",
           "pendrel_http_requests_total{mount=\"/a\",status=\"504\"} 1\n",
           "pendrel_http_requests_total{mount=\"\",status=\"404\"} 1\n",
           "pendrel_http_request_duration_seconds_bucket{mount=\"/a\",le=\"0.0005\"} 1\n",
           "pendrel_http_request_duration_seconds_bucket{mount=\"/a\",le=\"0.005\"} 2\n",
           "pendrel_http_request_duration_seconds_bucket{mount=\"/a\",le=\"2.5\"} 2\n",
           "pendrel_http_request_duration_seconds_bucket{mount=\"/a\",le=\"+Inf\"} 3\n",
           "pendrel_http_request_duration_seconds_count{mount=\"/a\"} 3\n",
           "pendrel_http_received_bytes_total 16\n",
           "pendrel_http_sent_bytes_total 27\n",
           "pendrel_pool_idle_handlers{mount=\"/a\\\"b\"} 3\n",
           "pendrel_pool_handler_kills_total{mount=\"/a\\\"b\"} 2\n",
           "# TYPE pendrel_pool_handler_kills_total counter\n",
           "# TYPE pendrel_http_request_duration_seconds histogram\n",
       }) {
    EXPECT_NE(page.find(line), std::string::npos) << line;
  }
}

TEST(ServeProblem, IsProblemJsonWithTitleAndDetail) {
  const CReply reply = Problem(413, "too \"big\"\n");
  EXPECT_EQ(reply.Status, 413u);
  ASSERT_EQ(reply.Fields.size(), 1u);
  EXPECT_EQ(reply.Fields[0].second, "application/problem+json");
  EXPECT_EQ(reply.Body,
            "{\"type\":\"about:blank\",\"title\":\"Content Too Large\",\"status\":413,"
            "\"detail\":\"too \\\"big\\\"\\n\"}");
}

}  // namespace
}  // namespace PendrelServer
