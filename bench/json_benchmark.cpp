// The JSON figures: writing and reading a request and a response with one file, against the
// best JSON libraries writing and reading the same document, and memcpy of as many bytes.
//
// Names: ToJson/<request|response>/<A|B|C>/<size>/<library>,
//        FromJson/<request|response>/<A|B|C>/<size>/<library>, Memcpy/<size>.
// Bytes processed are bytes of JSON text. The peers get every advantage the figure allows:
// their documents are built before the clock starts (pendrel builds its own tree from the
// record inside the measurement), RapidJSON writes into a buffer it keeps from the last
// iteration, and simdjson reuses its parser. Reading is timed by hand from the finished text
// to the file's bytes in a std::string of the caller, so that neither copying the input
// (CResponse::FromJsonString takes it by value, the handler client moves it in) nor freeing
// the result counts for anyone.
#define RAPIDJSON_SSE42
#define RAPIDJSON_HAS_STDSTRING 1

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <boost/json.hpp>
#include <chrono>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "BenchData.h"

namespace PendrelBench {
namespace {

using Clock = std::chrono::steady_clock;

enum class Form { Request, Response };

const char* FormName(Form form) { return form == Form::Request ? "request" : "response"; }

// One document: the record and the same document as each peer holds it.
struct Document {
  Form form;
  Pendrel::CRequest request;
  Pendrel::CResponse response;
  std::string data;  // the file's bytes
  std::string text;  // pendrel's JSON text of the record
};

std::shared_ptr<Document> MakeDocument(Form form, DataKind kind, std::size_t size) {
  auto document = std::make_shared<Document>();
  document->form = form;
  document->data = MakeFileData(kind, size);
  if (form == Form::Request) {
    document->request = MakeRequest(document->data);
    document->text = document->request.ToJsonString();
  } else {
    document->response = MakeResponse(document->data);
    document->text = document->response.ToJsonString();
  }
  return document;
}

// --- Writing ---

void WritePendrel(benchmark::State& state, const std::shared_ptr<Document>& document) {
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = document->form == Form::Request ? document->request.ToJsonString()
                                                       : document->response.ToJsonString();
    bytes += text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

template <typename Writer>
void WriteRapidJsonDocument(Writer& writer, const Document& document) {
  const std::string& data = document.data;
  writer.StartObject();
  if (document.form == Form::Request) {
    writer.Key("Command");
    writer.String("ECHO");
    writer.Key("CommandAtribute");
    writer.String("document");
    writer.Key("CommandParams");
    writer.StartObject();
    writer.Key("ID");
    writer.String("42");
    writer.EndObject();
    writer.Key("RequestParams");
    writer.StartObject();
    writer.Key("MODE");
    writer.String("full");
    writer.EndObject();
    writer.Key("InputData");
    writer.StartArray();
    writer.StartObject();
    writer.Key("Name");
    writer.String("data");
    writer.Key("FileName");
    writer.String("data.txt");
    writer.Key("Type");
    writer.String("text/plain");
    writer.Key("Data");
    writer.String(data.data(), static_cast<rapidjson::SizeType>(data.size()));
    writer.EndObject();
    writer.EndArray();
  } else {
    writer.Key("Data");
    writer.StartArray();
    writer.StartObject();
    writer.Key("Type");
    writer.Int(3);
    writer.Key("FileName");
    writer.String("data.txt");
    writer.Key("Title");
    writer.String("data");
    writer.Key("Data");
    writer.String(data.data(), static_cast<rapidjson::SizeType>(data.size()));
    writer.Key("IsAttachment");
    writer.Bool(false);
    writer.EndObject();
    writer.EndArray();
    writer.Key("status");
    writer.Int(1);
    writer.Key("Parameters");
    writer.StartObject();
    writer.Key("LINES");
    writer.String("1");
    writer.EndObject();
  }
  writer.EndObject();
}

void WriteRapidJson(benchmark::State& state, const std::shared_ptr<Document>& document) {
  rapidjson::StringBuffer buffer;
  std::size_t bytes = 0;
  for (auto _ : state) {
    buffer.Clear();  // keeps its memory: the peer's best case
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    WriteRapidJsonDocument(writer, *document);
    bytes += buffer.GetSize();
    benchmark::DoNotOptimize(buffer.GetString());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

boost::json::value MakeBoostDocument(const Document& document) {
  boost::json::object root;
  boost::json::object file;
  if (document.form == Form::Request) {
    root["Command"] = "ECHO";
    root["CommandAtribute"] = "document";
    root["CommandParams"] = boost::json::object{{"ID", "42"}};
    root["RequestParams"] = boost::json::object{{"MODE", "full"}};
    file["Name"] = "data";
    file["FileName"] = "data.txt";
    file["Type"] = "text/plain";
    file["Data"] = boost::json::string_view(document.data.data(), document.data.size());
    root["InputData"] = boost::json::array{file};
  } else {
    file["Type"] = 3;
    file["FileName"] = "data.txt";
    file["Title"] = "data";
    file["Data"] = boost::json::string_view(document.data.data(), document.data.size());
    file["IsAttachment"] = false;
    root["Data"] = boost::json::array{file};
    root["status"] = 1;
    root["Parameters"] = boost::json::object{{"LINES", "1"}};
  }
  return root;
}

void WriteBoostJson(benchmark::State& state, const std::shared_ptr<Document>& document) {
  const boost::json::value value = MakeBoostDocument(*document);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = boost::json::serialize(value);
    bytes += text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

nlohmann::ordered_json MakeNlohmannDocument(const Document& document) {
  nlohmann::ordered_json root;
  nlohmann::ordered_json file;
  if (document.form == Form::Request) {
    root["Command"] = "ECHO";
    root["CommandAtribute"] = "document";
    root["CommandParams"] = {{"ID", "42"}};
    root["RequestParams"] = {{"MODE", "full"}};
    file["Name"] = "data";
    file["FileName"] = "data.txt";
    file["Type"] = "text/plain";
    file["Data"] = document.data;
    root["InputData"] = nlohmann::ordered_json::array({file});
  } else {
    file["Type"] = 3;
    file["FileName"] = "data.txt";
    file["Title"] = "data";
    file["Data"] = document.data;
    file["IsAttachment"] = false;
    root["Data"] = nlohmann::ordered_json::array({file});
    root["status"] = 1;
    root["Parameters"] = {{"LINES", "1"}};
  }
  return root;
}

void WriteNlohmann(benchmark::State& state, const std::shared_ptr<Document>& document) {
  const nlohmann::ordered_json value = MakeNlohmannDocument(*document);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string text = value.dump();
    bytes += text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

// simdjson writes no documents; minifying the finished text is the nearest it comes, and
// a ceiling for any writer: it only copies the text and drops nothing.
void WriteSimdjsonMinify(benchmark::State& state, const std::shared_ptr<Document>& document) {
  const std::string& text = document->text;
  std::unique_ptr<char[]> out(new char[text.size() + simdjson::SIMDJSON_PADDING]);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::size_t length = 0;
    if (simdjson::minify(text.data(), text.size(), out.get(), length) != simdjson::SUCCESS) {
      state.SkipWithError("simdjson::minify failed");
      break;
    }
    bytes += length;
    benchmark::DoNotOptimize(out.get());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

// --- Reading ---

// Runs `read` (returns the file's bytes as the caller's std::string) under a hand-held
// clock for each iteration.
template <typename Read>
void TimeReads(benchmark::State& state, const Document& document, Read read) {
  for (auto _ : state) {
    std::string data;
    const auto start = Clock::now();
    data = read();
    const auto end = Clock::now();
    if (data.size() != document.data.size()) {
      state.SkipWithError("the file came back with a different size");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document.text.size()));
}

void ReadPendrel(benchmark::State& state, const std::shared_ptr<Document>& document) {
  for (auto _ : state) {
    double seconds = 0;
    std::size_t size = 0;
    if (document->form == Form::Request) {
      Pendrel::CRequest request;
      const auto start = Clock::now();
      request.FromJsonString(document->text);
      const auto end = Clock::now();
      seconds = std::chrono::duration<double>(end - start).count();
      size = request.InputData.empty() ? 0 : request.InputData.front().Data.size();
    } else {
      std::string text = document->text;
      Pendrel::CResponse response;
      const auto start = Clock::now();
      response.FromJsonString(std::move(text));
      const auto end = Clock::now();
      seconds = std::chrono::duration<double>(end - start).count();
      size = response.Data.empty() ? 0 : response.Data.front().Data.size();
    }
    if (size != document->data.size()) {
      state.SkipWithError("the file came back with a different size");
      break;
    }
    state.SetIterationTime(seconds);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * document->text.size()));
}

const char* FilesMember(Form form) { return form == Form::Request ? "InputData" : "Data"; }

void ReadRapidJson(benchmark::State& state, const std::shared_ptr<Document>& document) {
  TimeReads(state, *document, [&document] {
    rapidjson::Document value;
    value.Parse(document->text.data(), document->text.size());
    const rapidjson::Value& data = value[FilesMember(document->form)][0]["Data"];
    return std::string(data.GetString(), data.GetStringLength());
  });
}

void ReadBoostJson(benchmark::State& state, const std::shared_ptr<Document>& document) {
  TimeReads(state, *document, [&document] {
    const boost::json::value value = boost::json::parse(document->text);
    const boost::json::string& data =
        value.at(FilesMember(document->form)).as_array().at(0).as_object().at("Data").as_string();
    return std::string(data.data(), data.size());
  });
}

void ReadNlohmann(benchmark::State& state, const std::shared_ptr<Document>& document) {
  TimeReads(state, *document, [&document] {
    const nlohmann::json value = nlohmann::json::parse(document->text);
    return value[FilesMember(document->form)][0]["Data"].get<std::string>();
  });
}

void ReadSimdjson(benchmark::State& state, const std::shared_ptr<Document>& document) {
  const simdjson::padded_string text(document->text);
  simdjson::dom::parser parser;  // reused, as simdjson is meant to be used
  TimeReads(state, *document, [&] {
    std::string_view data;
    if (parser.parse(text)[FilesMember(document->form)].at(0)["Data"].get(data) !=
        simdjson::SUCCESS) {
      return std::string();
    }
    return std::string(data);
  });
}

using Function = void (*)(benchmark::State&, const std::shared_ptr<Document>&);

void Register(const std::string& name, Function function, const std::shared_ptr<Document>& document,
              bool manualTime) {
  benchmark::internal::Benchmark* benchmark =
      benchmark::RegisterBenchmark(name.c_str(), function, document);
  benchmark->Unit(benchmark::kMicrosecond);
  if (manualTime) benchmark->UseManualTime();
}

void RegisterAll() {
  for (const std::size_t size : JsonSizes()) {
    const std::string sizeName = SizeName(size);
    benchmark::RegisterBenchmark(("Memcpy/" + sizeName).c_str(), MemcpyBaseline, size)
        ->Unit(benchmark::kMicrosecond);
    for (const Form form : {Form::Request, Form::Response}) {
      for (const DataKind kind : {DataKind::A, DataKind::B, DataKind::C}) {
        const std::shared_ptr<Document> document = MakeDocument(form, kind, size);
        const std::string suffix =
            std::string(FormName(form)) + "/" + DataKindName(kind) + "/" + sizeName + "/";
        // Writing. On C the peers do not write the same document (they escape control
        // bytes as \u00XX or refuse invalid UTF-8), so only pendrel runs there.
        Register("ToJson/" + suffix + "pendrel", WritePendrel, document, false);
        if (kind != DataKind::C) {
          Register("ToJson/" + suffix + "rapidjson", WriteRapidJson, document, false);
          Register("ToJson/" + suffix + "boost.json", WriteBoostJson, document, false);
          Register("ToJson/" + suffix + "nlohmann", WriteNlohmann, document, false);
        }
        if (kind == DataKind::A) {
          Register("ToJson/" + suffix + "simdjson.minify", WriteSimdjsonMinify, document, false);
        }
        // Reading. No peer accepts the raw control bytes of C.
        Register("FromJson/" + suffix + "pendrel", ReadPendrel, document, true);
        if (kind != DataKind::C) {
          Register("FromJson/" + suffix + "rapidjson", ReadRapidJson, document, true);
          Register("FromJson/" + suffix + "boost.json", ReadBoostJson, document, true);
          Register("FromJson/" + suffix + "nlohmann", ReadNlohmann, document, true);
          Register("FromJson/" + suffix + "simdjson", ReadSimdjson, document, true);
        }
      }
    }
  }
}

}  // namespace
}  // namespace PendrelBench

int main(int argc, char** argv) {
  return PendrelBench::RunBenchmarks(argc, argv, PendrelBench::RegisterAll);
}
