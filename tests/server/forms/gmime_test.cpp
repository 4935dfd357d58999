// An independent MIME library (GMime) on both sides of the server's forms: it reads the
// multipart answers AnswerOf gives, and writes multipart bodies (mixed and form-data, with
// LF or CRLF line ends, base64 and binary parts, RFC 2231 file names) that ReadRequest reads.
#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/server/forms/HttpForms.h"
#include "tools/text/Utf8Text.h"

namespace {

using namespace std::string_literals;

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, ObjectUnref>;

struct FormatOptionsFree {
  void operator()(GMimeFormatOptions* options) const { g_mime_format_options_free(options); }
};

class GMimeTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { g_mime_init(); }
};

struct Expected {
  Pendrel::EMimeType type;
  std::wstring name;
  std::wstring fileName;
  std::string data;
};

std::string Utf8(const std::wstring& text) {
  return PendrelTools::Utf8FromWide(text, PendrelTools::ELoneSurrogate::Keep);
}

std::string StreamBytes(GMimeStream* stream) {
  GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream));
  return std::string(reinterpret_cast<const char*>(bytes->data), bytes->len);
}

TEST_F(GMimeTest, ReadsTheMultipartAnswer) {
  Pendrel::CResponse response;
  const std::vector<Expected> files = {{Pendrel::Text, L"a", L"a.txt", "hi"},
                                       {Pendrel::Pdf, L"", L"отчёт.pdf", "%PDF\0\r\n--"s},
                                       {Pendrel::Binary, L"b", L"b.bin", std::string(1000, '\xFF')},
                                       {Pendrel::Zip, L"", L"", ""}};
  for (const Expected& file : files) {
    Pendrel::CMimeFile mimeFile;
    mimeFile.Type = file.type;
    mimeFile.Name = file.name;
    mimeFile.FileName = file.fileName;
    mimeFile.Data = file.data;
    response.Data.push_back(mimeFile);
  }
  const PendrelServer::CHttpAnswer answer = PendrelServer::AnswerOf(response);
  std::string message;
  for (const auto& [name, value] : answer.Fields) message += name + ": " + value + "\r\n";
  message += "\r\n" + answer.Body;

  GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(message.data(), message.size()));
  GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  GObjectPtr<GMimeObject> object(g_mime_parser_construct_part(parser.get(), nullptr));
  ASSERT_NE(object, nullptr);
  ASSERT_TRUE(GMIME_IS_MULTIPART(object.get()));
  GMimeMultipart* multipart = GMIME_MULTIPART(object.get());
  ASSERT_EQ(g_mime_multipart_get_count(multipart), static_cast<int>(files.size()));
  for (std::size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(i);
    GMimeObject* part = g_mime_multipart_get_part(multipart, static_cast<int>(i));
    ASSERT_TRUE(GMIME_IS_PART(part));
    GMimeContentType* type = g_mime_object_get_content_type(part);
    char* mimeType = g_mime_content_type_get_mime_type(type);
    EXPECT_EQ(mimeType, Pendrel::GetMimeTypeName(files[i].type));
    g_free(mimeType);
    const char* name = g_mime_object_get_content_type_parameter(part, "name");
    EXPECT_EQ(name == nullptr ? "" : name, Utf8(files[i].name));
    const char* fileName = g_mime_object_get_content_disposition_parameter(part, "filename");
    EXPECT_EQ(fileName == nullptr ? "" : fileName, Utf8(files[i].fileName));
    GObjectPtr<GMimeStream> content(g_mime_stream_mem_new());
    g_mime_data_wrapper_write_to_stream(g_mime_part_get_content(GMIME_PART(part)), content.get());
    EXPECT_EQ(StreamBytes(content.get()), files[i].data);
  }
}

// A multipart body written by GMime: its Content-Type field's value and its body.
struct Written {
  std::string contentType;
  std::string body;
};

Written WriteWithGMime(GMimeMultipart* multipart, GMimeNewLineFormat newLine) {
  std::unique_ptr<GMimeFormatOptions, FormatOptionsFree> options(g_mime_format_options_new());
  g_mime_format_options_set_newline_format(options.get(), newLine);
  GObjectPtr<GMimeStream> out(g_mime_stream_mem_new());
  g_mime_object_write_content_to_stream(GMIME_OBJECT(multipart), options.get(), out.get());
  Written written;
  char* type = g_mime_content_type_encode(g_mime_object_get_content_type(GMIME_OBJECT(multipart)),
                                          options.get());
  written.contentType = type;
  g_free(type);
  // The encoded field may be folded and ends with a line end.
  std::string unfolded;
  for (char c : written.contentType) {
    if (c != '\r' && c != '\n') unfolded += c;
  }
  written.contentType = unfolded;
  written.body = StreamBytes(out.get());
  return written;
}

// Adds a part with the Content-Disposition parameters `parameters`. GMime writes a
// non-ASCII parameter in the smallest charset that holds it (RFC 2231), unless `utf8`.
void AddPart(GMimeMultipart* multipart, const char* type, const char* subtype,
             const char* disposition, std::vector<std::pair<const char*, std::string>> parameters,
             const std::string& data, GMimeContentEncoding encoding, bool utf8 = false) {
  GObjectPtr<GMimePart> part(g_mime_part_new_with_type(type, subtype));
  GMimeObject* object = GMIME_OBJECT(part.get());
  g_mime_object_set_disposition(object, disposition);
  for (const auto& [name, value] : parameters) {
    g_mime_object_set_content_disposition_parameter(object, name, value.c_str());
    if (utf8) {
      GMimeParamList* list =
          g_mime_content_disposition_get_parameters(g_mime_object_get_content_disposition(object));
      g_mime_param_set_charset(g_mime_param_list_get_parameter(list, name), "UTF-8");
    }
  }
  GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(data.data(), data.size()));
  GObjectPtr<GMimeDataWrapper> wrapper(
      g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
  g_mime_part_set_content(part.get(), wrapper.get());
  g_mime_part_set_content_encoding(part.get(), encoding);
  g_mime_multipart_add(multipart, object);
}

// Text with non-ASCII bytes, "=", blanks at its end and a line longer than
// quoted-printable's 76 characters, so GMime escapes, pads and breaks it. (It holds no line
// end: those a writer may turn into its own.)
const std::string kQuoted = "na\xC3\xAFve = 1 \t" + std::string(200, 'x') + " end ";

TEST_F(GMimeTest, MixedBodiesItWritesAreRead) {
  const std::string binary = "\0\x01\r\n--\xFF"s + std::string(5000, 'b');
  for (GMimeNewLineFormat newLine : {GMIME_NEWLINE_FORMAT_UNIX, GMIME_NEWLINE_FORMAT_DOS}) {
    SCOPED_TRACE(newLine);
    GObjectPtr<GMimeMultipart> multipart(g_mime_multipart_new_with_subtype("mixed"));
    AddPart(multipart.get(), "application", "pdf", "inline", {{"filename", "отчёт.pdf"}},
            "%PDF" + binary, GMIME_CONTENT_ENCODING_BASE64, true);
    AddPart(multipart.get(), "image", "png", "attachment", {{"filename", "café.png"}}, binary,
            GMIME_CONTENT_ENCODING_BINARY);
    AddPart(multipart.get(), "text", "plain", "inline", {}, "plain text",
            GMIME_CONTENT_ENCODING_7BIT);
    AddPart(multipart.get(), "text", "csv", "inline", {{"filename", "t.csv"}}, kQuoted,
            GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
    const Written written = WriteWithGMime(multipart.get(), newLine);
    // The forms asked for were written.
    EXPECT_NE(written.body.find("filename*=UTF-8''"), std::string::npos) << written.body;
    EXPECT_NE(written.body.find("filename*=iso-8859-1''caf%E9.png"), std::string::npos);
    EXPECT_NE(written.body.find("Content-Transfer-Encoding: binary"), std::string::npos);
    EXPECT_NE(written.body.find("na=C3=AFve =3D 1"), std::string::npos);
    EXPECT_NE(written.body.find(newLine == GMIME_NEWLINE_FORMAT_DOS ? "=\r\n" : "=\n"),
              std::string::npos);  // a soft line break

    PendrelServer::CHttpRequestParts parts;
    parts.Path = "/PING/S";
    parts.ContentType = written.contentType;
    parts.Body = written.body;
    PendrelServer::CReadRequest read;
    ASSERT_TRUE(PendrelServer::ReadRequest(std::move(parts), read)) << read.Problem << "\n"
                                                                    << written.contentType;
    const std::vector<Expected> expected = {{Pendrel::Pdf, L"", L"отчёт.pdf", "%PDF" + binary},
                                            {Pendrel::Png, L"", L"café.png", binary},
                                            {Pendrel::Text, L"", L"", "plain text"},
                                            {Pendrel::Csv, L"", L"t.csv", kQuoted}};
    ASSERT_EQ(read.Request.InputData.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(read.Request.InputData[i].Type, expected[i].type);
      EXPECT_EQ(read.Request.InputData[i].FileName, expected[i].fileName);
      EXPECT_EQ(read.Request.InputData[i].Data, expected[i].data);
    }
  }
}

TEST_F(GMimeTest, FormDataItWritesIsRead) {
  GObjectPtr<GMimeMultipart> multipart(g_mime_multipart_new_with_subtype("form-data"));
  AddPart(multipart.get(), "text", "plain", "form-data", {{"name", "lang"}}, "en",
          GMIME_CONTENT_ENCODING_8BIT);
  AddPart(multipart.get(), "text", "csv", "form-data", {{"name", "table"}, {"filename", "t.csv"}},
          "a,b\r\n1,2\r\n", GMIME_CONTENT_ENCODING_BINARY);
  const Written written = WriteWithGMime(multipart.get(), GMIME_NEWLINE_FORMAT_DOS);

  PendrelServer::CHttpRequestParts parts;
  parts.Path = "/STATS/";
  parts.ContentType = written.contentType;
  parts.Body = written.body;
  PendrelServer::CReadRequest read;
  ASSERT_TRUE(PendrelServer::ReadRequest(std::move(parts), read)) << read.Problem;
  EXPECT_EQ(read.Request.GetRequestValue(L"lang"), L"en");
  ASSERT_EQ(read.Request.InputData.size(), 1u);
  EXPECT_EQ(read.Request.InputData[0].Type, Pendrel::Csv);
  EXPECT_EQ(read.Request.InputData[0].Name, L"t");
  EXPECT_EQ(read.Request.InputData[0].FileName, L"t.csv");
  EXPECT_EQ(read.Request.InputData[0].Data, "a,b\r\n1,2\r\n");
}

}  // namespace
