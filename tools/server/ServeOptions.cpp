#include "tools/server/ServeOptions.h"

#include <toml++/toml.h>
#include <charconv>  // std::from_chars
#include <limits>
#include <set>

#include "tools/server/Text.h"

namespace PendrelServer {
namespace {

// Byte size suffixes: binary (KiB) and decimal (KB, k) multiples, one table both ways.
struct CSizeUnit {
  std::string_view Suffix;
  std::uint64_t Factor;
};
constexpr CSizeUnit kSizeUnits[] = {
    {"KiB", 1ull << 10}, {"MiB", 1ull << 20},
    {"GiB", 1ull << 30}, {"KB", 1000},
    {"MB", 1000000},     {"GB", 1000000000},
    {"K", 1ull << 10},   {"M", 1ull << 20},
    {"G", 1ull << 30},   {"B", 1},
};

template <typename T>
bool ParseNumber(std::string_view text, T& value) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  return ec == std::errc() && ptr == end && !text.empty();
}

// A prefix as routing compares it: a leading "/", no "/" at the end.
bool NormalizePrefix(std::string& prefix) {
  if (prefix.empty() || prefix[0] != '/') return false;
  while (prefix.size() > 1 && prefix.back() == '/') prefix.pop_back();
  if (prefix.find_first_of("?#") != std::string::npos) return false;
  // A mount whose first segment starts with "_" would shadow the server's own routes.
  return prefix.size() < 2 || prefix[1] != '_';
}

CTolvane::CHandlerPoolSettings CommandLinePool(const CServeCommandLine& cl) {
  CTolvane::CHandlerPoolSettings pool;
  pool.Mode = cl.Mode;
  pool.MinHandlers = cl.PoolMin;
  pool.MaxHandlers = cl.PoolMax;
  pool.ResponseTimeoutS = cl.TimeoutS;
  pool.ChildOutput = CTolvane::EChildOutput::HostStderr;
  return pool;
}

// Reads one [[handler]] table. Unknown keys are errors: a misspelt key would else be ignored.
bool ReadHandler(const toml::table& table, std::size_t index, CMountSettings& mount,
                 std::string& error) {
  const std::string where = "[[handler]] number " + std::to_string(index + 1);
  auto fail = [&](const std::string& key, const std::string& why) {
    error = where + ", key \"" + key + "\": " + why;
    return false;
  };
  static const std::set<std::string_view> kKeys = {"mount", "program",   "arguments",
                                                   "mode",  "timeout_s", "pool"};
  for (auto&& [key, node] : table) {
    if (!kKeys.count(key.str())) return fail(std::string(key.str()), "unknown key");
  }
  auto mountNode = table["mount"].value<std::string>();
  if (!mountNode) return fail("mount", "missing or not a string");
  mount.Prefix = *mountNode;
  if (!NormalizePrefix(mount.Prefix)) {
    return fail("mount",
                "must start with \"/\", hold no \"?\" or \"#\", and not start with \"/_\"");
  }
  auto program = table["program"].value<std::string>();
  if (!program || program->empty()) return fail("program", "missing or not a string");
  mount.Pool.Program = WideFromUtf8(*program);
  if (table.contains("arguments")) {
    auto arguments = table["arguments"].value<std::string>();
    if (!arguments) return fail("arguments", "not a string");
    mount.Pool.Arguments = WideFromUtf8(*arguments);
  }
  auto integer = [&](const toml::node_view<const toml::node>& node, const std::string& key,
                     std::int64_t least, std::int64_t most, auto& field) {
    if (!node) return true;
    auto value = node.value<std::int64_t>();
    if (!node.is_integer() || !value || *value < least || *value > most) {
      return fail(
          key, "must be an integer from " + std::to_string(least) + " to " + std::to_string(most));
    }
    field = static_cast<std::remove_reference_t<decltype(field)>>(*value);
    return true;
  };
  constexpr std::int64_t kMaxU32 = std::numeric_limits<std::uint32_t>::max();
  if (!integer(table["mode"], "mode", std::numeric_limits<int>::min(),
               std::numeric_limits<int>::max(), mount.Pool.Mode) ||
      !integer(table["timeout_s"], "timeout_s", 1, 2000000, mount.Pool.ResponseTimeoutS)) {
    return false;
  }
  if (table.contains("pool")) {
    const toml::table* pool = table["pool"].as_table();
    if (!pool) return fail("pool", "must be a table");
    static const std::set<std::string_view> kPoolKeys = {
        "min", "max", "max_requests", "idle_s", "queue", "queue_wait_s", "stop_grace_ms"};
    for (auto&& [key, node] : *pool) {
      if (!kPoolKeys.count(key.str())) return fail("pool." + std::string(key.str()), "unknown key");
    }
    std::uint32_t idleS = mount.Pool.IdleMs / 1000;
    std::uint32_t queueWaitS = mount.Pool.QueueWaitMs / 1000;
    const toml::node_view<const toml::node> p(pool);
    if (!integer(p["min"], "pool.min", 0, 4096, mount.Pool.MinHandlers) ||
        !integer(p["max"], "pool.max", 1, 4096, mount.Pool.MaxHandlers) ||
        !integer(p["max_requests"], "pool.max_requests", 0, kMaxU32, mount.Pool.MaxRequests) ||
        !integer(p["idle_s"], "pool.idle_s", 0, 4000000, idleS) ||
        !integer(p["queue"], "pool.queue", 0, kMaxU32, mount.Pool.QueueLength) ||
        !integer(p["queue_wait_s"], "pool.queue_wait_s", 0, 4000000, queueWaitS) ||
        !integer(p["stop_grace_ms"], "pool.stop_grace_ms", 0, 600000,
                 mount.Pool.StopGracePeriodMs)) {
      return false;
    }
    mount.Pool.IdleMs = idleS * 1000;
    mount.Pool.QueueWaitMs = queueWaitS * 1000;
  }
  if (mount.Pool.MinHandlers > mount.Pool.MaxHandlers) {
    return fail("pool.min", "is greater than pool.max");
  }
  return true;
}

bool ReadConfigFile(const std::string& path, CServeSettings& settings, std::string& error,
                    bool& fileUnreadable) {
  toml::table root;
  try {
    root = toml::parse_file(path);
  } catch (const toml::parse_error& e) {
    const auto& where = e.source().begin;
    fileUnreadable = e.description().find("File could not be opened") != std::string_view::npos;
    error = "cannot read the configuration file " + path;
    if (fileUnreadable) return false;
    error += ": line " + std::to_string(where.line) + ", column " + std::to_string(where.column) +
             ": " + std::string(e.description());
    return false;
  }
  error = "the configuration file " + path + ": ";
  static const std::set<std::string_view> kKeys = {"listen", "max_body", "workers", "drain_s",
                                                   "handler"};
  for (auto&& [key, node] : root) {
    if (!kKeys.count(key.str())) {
      error += "unknown key \"" + std::string(key.str()) + "\"";
      return false;
    }
  }
  if (root.contains("listen")) {
    const toml::array* listen = root["listen"].as_array();
    if (!listen) return error += "\"listen\" must be an array of strings", false;
    for (const toml::node& item : *listen) {
      auto text = item.value<std::string>();
      if (!text) return error += "\"listen\" must be an array of strings", false;
      settings.Listen.push_back(*text);
    }
  }
  if (root.contains("max_body")) {
    auto node = root["max_body"];
    std::uint64_t bytes = 0;
    if (auto text = node.value<std::string>(); text && node.is_string()) {
      if (!ParseByteSize(*text, bytes)) return error += "\"max_body\" is not a size", false;
    } else if (auto number = node.value<std::int64_t>();
               number && node.is_integer() && *number > 0) {
      bytes = static_cast<std::uint64_t>(*number);
    } else {
      return error += "\"max_body\" must be a size such as \"256MiB\" or a number of bytes", false;
    }
    settings.MaxBody = bytes;
  }
  if (root.contains("workers")) {
    auto number = root["workers"].value<std::int64_t>();
    if (!number || *number < 1 || *number > 4096) {
      return error += "\"workers\" must be an integer from 1 to 4096", false;
    }
    settings.Workers = static_cast<std::uint32_t>(*number);
  }
  if (root.contains("drain_s")) {
    auto number = root["drain_s"].value<std::int64_t>();
    if (!number || *number < 0 || *number > 3600) {
      return error += "\"drain_s\" must be an integer from 0 to 3600", false;
    }
    settings.DrainMs = static_cast<std::uint32_t>(*number) * 1000;
  }
  if (root.contains("handler")) {
    const toml::array* handlers = root["handler"].as_array();
    if (!handlers || !handlers->is_array_of_tables()) {
      return error += "\"handler\" must be an array of tables ([[handler]])", false;
    }
    for (std::size_t i = 0; i < handlers->size(); ++i) {
      CMountSettings mount;
      mount.Pool.ChildOutput = CTolvane::EChildOutput::HostStderr;
      std::string why;
      if (!ReadHandler(*handlers->get(i)->as_table(), i, mount, why)) return error += why, false;
      settings.Mounts.push_back(std::move(mount));
    }
  }
  error.clear();
  return true;
}

}  // namespace

bool ParseByteSize(std::string_view text, std::uint64_t& bytes) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  std::uint64_t factor = 1;
  for (const CSizeUnit& unit : kSizeUnits) {
    if (text.size() > unit.Suffix.size() &&
        text.substr(text.size() - unit.Suffix.size()) == unit.Suffix) {
      factor = unit.Factor;
      text.remove_suffix(unit.Suffix.size());
      break;
    }
  }
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  std::uint64_t number = 0;
  if (!ParseNumber(text, number) || number == 0) return false;
  if (number > std::numeric_limits<std::uint64_t>::max() / factor) return false;
  bytes = number * factor;
  return true;
}

const char* ServeUsage() {
  return "usage: pendrel serve [--listen ADDR:PORT]... [--mount PREFIX=PROGRAM]... "
         "[--config FILE]\n"
         "                     [--pool-min N] [--pool-max N] [--timeout SECONDS] "
         "[--max-body BYTES]\n"
         "                     [--mode N] [--workers N]\n";
}

bool ParseServeCommandLine(const std::vector<std::string>& arguments, CServeCommandLine& out,
                           std::string& error) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string name = arguments[i];
    std::string value;
    bool hasValue = false;
    if (const auto equals = name.find('=');
        name.rfind("--", 0) == 0 && equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
      hasValue = true;
    }
    auto take = [&]() {
      if (hasValue) return true;
      if (i + 1 >= arguments.size()) {
        error = "option " + name + " needs a value";
        return false;
      }
      value = arguments[++i];
      return true;
    };
    auto number = [&](auto& field, long long least, long long most) {
      long long parsed = 0;
      if (!take()) return false;
      if (!ParseNumber(std::string_view(value), parsed) || parsed < least || parsed > most) {
        error = "option " + name + " takes a whole number from " + std::to_string(least) + " to " +
                std::to_string(most) + ", not \"" + value + "\"";
        return false;
      }
      field = static_cast<std::remove_reference_t<decltype(field)>>(parsed);
      return true;
    };
    if (name == "--listen") {
      if (!take()) return false;
      out.Listen.push_back(value);
    } else if (name == "--mount") {
      if (!take()) return false;
      const auto equals = value.find('=');
      if (equals == std::string::npos || equals == 0 || equals + 1 == value.size()) {
        error = "option --mount takes PREFIX=PROGRAM, not \"" + value + "\"";
        return false;
      }
      out.Mounts.emplace_back(value.substr(0, equals), value.substr(equals + 1));
    } else if (name == "--config") {
      if (!take()) return false;
      out.ConfigFile = value;
    } else if (name == "--pool-min") {
      if (!number(out.PoolMin, 0, 4096)) return false;
    } else if (name == "--pool-max") {
      if (!number(out.PoolMax, 1, 4096)) return false;
    } else if (name == "--timeout") {
      if (!number(out.TimeoutS, 1, 2000000)) return false;
    } else if (name == "--mode") {
      if (!number(out.Mode, std::numeric_limits<int>::min(), std::numeric_limits<int>::max())) {
        return false;
      }
    } else if (name == "--workers") {
      if (!number(out.Workers, 1, 4096)) return false;
    } else if (name == "--max-body") {
      if (!take()) return false;
      if (!ParseByteSize(value, out.MaxBody)) {
        error = "option --max-body takes a size such as 1048576 or 256MiB, not \"" + value + "\"";
        return false;
      }
      out.MaxBodyGiven = true;
    } else {
      error = "unknown option \"" + arguments[i] + "\"";
      return false;
    }
  }
  if (out.PoolMin > out.PoolMax) {
    error = "--pool-min is greater than --pool-max";
    return false;
  }
  if (out.Mounts.empty() && out.ConfigFile.empty()) {
    error = "nothing to serve: give --mount PREFIX=PROGRAM or --config FILE";
    return false;
  }
  return true;
}

bool LoadServeSettings(const CServeCommandLine& commandLine, CServeSettings& out,
                       std::string& error, bool& fileUnreadable) {
  fileUnreadable = false;
  CServeSettings settings;
  if (!commandLine.ConfigFile.empty() &&
      !ReadConfigFile(commandLine.ConfigFile, settings, error, fileUnreadable)) {
    return false;
  }
  if (!commandLine.Listen.empty()) settings.Listen = commandLine.Listen;
  if (settings.Listen.empty()) settings.Listen.push_back("127.0.0.1:8080");
  if (commandLine.MaxBodyGiven) settings.MaxBody = commandLine.MaxBody;
  if (commandLine.Workers) settings.Workers = commandLine.Workers;
  for (const auto& [prefix, program] : commandLine.Mounts) {
    CMountSettings mount;
    mount.Prefix = prefix;
    if (!NormalizePrefix(mount.Prefix)) {
      error = "--mount " + prefix + "=" + program +
              ": the prefix must start with \"/\", hold no \"?\" or \"#\", and not start with "
              "\"/_\"";
      return false;
    }
    mount.Pool = CommandLinePool(commandLine);
    mount.Pool.Program = WideFromUtf8(program);
    settings.Mounts.push_back(std::move(mount));
  }
  std::set<std::string> prefixes;
  for (const CMountSettings& mount : settings.Mounts) {
    if (!prefixes.insert(mount.Prefix).second) {
      error = "the prefix " + mount.Prefix + " is mounted twice";
      return false;
    }
  }
  if (settings.Mounts.empty()) {
    error = "nothing to serve: no mount given";
    return false;
  }
  out = std::move(settings);
  return true;
}

}  // namespace PendrelServer
