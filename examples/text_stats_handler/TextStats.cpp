#include "TextStats.h"

#include <cstdio>  // std::snprintf

namespace TextStats {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// A CSV field, quoted when it holds a comma, a quote or a line end.
std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

// Reads CSV one character at a time; Finish hands back the records.
class CCsvReader {
 public:
  explicit CCsvReader(char delimiter) : m_delimiter(delimiter) {}

  void Read(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (m_quoted) {
        if (c != '"') {
          m_field += c;
        } else if (i + 1 < text.size() && text[i + 1] == '"') {
          m_field += '"';
          ++i;
        } else {
          m_quoted = false;
        }
      } else if (c == '"' && m_field.empty()) {
        m_quoted = m_touched = true;
      } else if (c == m_delimiter) {
        EndField();
      } else if (c == '\n') {
        EndRecord();
      } else if (c != '\r' || (i + 1 < text.size() && text[i + 1] != '\n')) {
        m_field += c;
        m_touched = true;
      }
    }
  }

  std::vector<std::vector<std::string>> Finish() {
    EndRecord();
    return std::move(m_records);
  }

 private:
  void EndField() {
    m_record.push_back(std::move(m_field));
    m_field.clear();
    m_touched = true;
  }

  void EndRecord() {
    if (m_touched || !m_field.empty()) {
      EndField();
      m_records.push_back(std::move(m_record));
    }
    m_record.clear();
    m_field.clear();
    m_touched = m_quoted = false;
  }

  char m_delimiter;
  bool m_quoted = false;
  bool m_touched = false;  // the record holds something, if only an empty field
  std::string m_field;
  std::vector<std::string> m_record;
  std::vector<std::vector<std::string>> m_records;
};

void AppendUtf8(char32_t point, std::string& out) {
  if (point < 0x80) {
    out += static_cast<char>(point);
    return;
  }
  const int extra = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
  static constexpr unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
  out += static_cast<char>(kLead[extra] | (point >> (6 * extra)));
  for (int shift = 6 * (extra - 1); shift >= 0; shift -= 6) {
    out += static_cast<char>(0x80 | ((point >> shift) & 0x3F));
  }
}

}  // namespace

CCounts CountText(std::string_view text) {
  CCounts counts;
  counts.Bytes = text.size();
  bool inWord = false;
  for (char c : text) {
    if (c == '\n') ++counts.Lines;
    if (!IsBlank(c) && !inWord) ++counts.Words;
    inWord = !IsBlank(c);
  }
  if (!text.empty() && text.back() != '\n') ++counts.Lines;
  return counts;
}

std::string CountsCsv(const std::vector<CFileCounts>& files) {
  std::string csv = "file,lines,words,bytes\n";
  for (const CFileCounts& file : files) {
    csv += CsvField(file.FileName) + "," + std::to_string(file.Counts.Lines) + "," +
           std::to_string(file.Counts.Words) + "," + std::to_string(file.Counts.Bytes) + "\n";
  }
  return csv;
}

std::string CountsJson(const std::vector<CFileCounts>& files) {
  std::string json = "[";
  for (std::size_t i = 0; i < files.size(); ++i) {
    const CCounts& counts = files[i].Counts;
    json += i == 0 ? "\n  " : ",\n  ";
    json += "{\"file\": " + JsonString(files[i].FileName) +
            ", \"lines\": " + std::to_string(counts.Lines) +
            ", \"words\": " + std::to_string(counts.Words) +
            ", \"bytes\": " + std::to_string(counts.Bytes) + "}";
  }
  return json + (files.empty() ? "]\n" : "\n]\n");
}

std::vector<std::vector<std::string>> ParseCsv(std::string_view text, char delimiter) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  CCsvReader reader(delimiter);
  reader.Read(text);
  return reader.Finish();
}

std::string CsvToJson(std::string_view text, char delimiter) {
  const std::vector<std::vector<std::string>> records = ParseCsv(text, delimiter);
  std::string json = "[";
  for (std::size_t r = 1; r < records.size(); ++r) {
    json += r == 1 ? "\n  {" : ",\n  {";
    for (std::size_t c = 0; c < records[r].size(); ++c) {
      const std::string name =
          c < records[0].size() ? records[0][c] : "column" + std::to_string(c + 1);
      json += (c == 0 ? "" : ", ") + JsonString(name) + ": " + JsonString(records[r][c]);
    }
    json += "}";
  }
  return json + (records.size() <= 1 ? "]\n" : "\n]\n");
}

std::string JsonString(std::string_view text) {
  std::string json = "\"";
  for (char c : text) {
    switch (c) {
      case '"':
        json += "\\\"";
        break;
      case '\\':
        json += "\\\\";
        break;
      case '\n':
        json += "\\n";
        break;
      case '\r':
        json += "\\r";
        break;
      case '\t':
        json += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
          json += escape;
        } else {
          json += c;
        }
    }
  }
  return json + "\"";
}

std::string Utf8(std::wstring_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t point = static_cast<char32_t>(text[i]);
    const bool pair = point >= 0xD800 && point <= 0xDBFF && i + 1 < text.size() &&
                      text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
    if (pair) {
      point = 0x10000 + ((point - 0xD800) << 10) + (static_cast<char32_t>(text[++i]) - 0xDC00);
    } else if ((point >= 0xD800 && point <= 0xDFFF) || point > 0x10FFFF) {
      point = 0xFFFD;
    }
    AppendUtf8(point, out);
  }
  return out;
}

std::wstring Wide(std::string_view text) {
  std::wstring out;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    const int extra = lead < 0x80 ? 0 : lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : -1;
    char32_t point = extra <= 0 ? lead : lead & (0x3F >> extra);
    bool valid = extra >= 0 && i + static_cast<std::size_t>(extra) < text.size();
    for (int k = 1; valid && k <= extra; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      valid = (next & 0xC0) == 0x80;
      point = (point << 6) | (next & 0x3F);
    }
    if (!valid || point > 0x10FFFF) {
      out += static_cast<wchar_t>(0xFFFD);
      ++i;
      continue;
    }
    i += static_cast<std::size_t>(extra) + 1;
    if (sizeof(wchar_t) == 2 && point >= 0x10000) {
      out += static_cast<wchar_t>(0xD800 + ((point - 0x10000) >> 10));
      out += static_cast<wchar_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
    } else {
      out += static_cast<wchar_t>(point);
    }
  }
  return out;
}

}  // namespace TextStats
