// The JSON document of a request: what the handler client sends down the pipe and what a
// host may hand back to it.
#include <string>
#include <utility>

#include "json/JsonParser.h"
#include "json/JsonValue.h"
#include "json/JsonWriter.h"
#include "json/TextConversion.h"
#include "message/CRequest.h"

namespace Pendrel {
namespace {

// A String node holding `bytes` unconverted, such as a MIME type name.
JsonValue MakeByteString(std::string bytes) {
  JsonValue value = MakeValue(JsonKind::String);
  SetString(value, std::move(bytes));
  return value;
}

void AddParams(JsonValue& root, const char* name, const CKeyValueMap& params) {
  JsonValue& object = AddMember(root, name, MakeObject());
  for (const auto& [key, value] : params) AddMember(object, key, MakeString(value));
}

// Reads the members of `object` into `params`; a key already present keeps its value.
// Anything but an object reads as no members.
template <typename KeyOf>
void ReadParams(const JsonValue& object, CKeyValueMap& params, KeyOf keyOf) {
  if (!IsObject(object)) return;
  for (const JsonMember& member : Members(object)) {
    params.emplace(keyOf(Utf8ToUtf16(member.name)), AsWString(member.value, L""));
  }
}

}  // namespace

std::string CRequest::ToJsonString() const {
  JsonValue root = MakeObject();
  AddMember(root, "Command", MakeString(Command));
  AddMember(root, "CommandAtribute", MakeString(CommandAtribute));
  AddParams(root, "CommandParams", CommandParams);
  AddParams(root, "RequestParams", RequestParams);
  JsonValue& files = AddMember(root, "InputData", MakeArray());
  for (const CMimeFile& file : InputData) {
    JsonValue& object = Append(files, MakeObject());
    AddMember(object, "Name", MakeString(file.Name));
    AddMember(object, "FileName", MakeString(file.FileName));
    AddMember(object, "Type", MakeByteString(GetMimeTypeName(file.Type)));
    // Contents can be megabytes: the tree refers to the record's bytes while it is written.
    AddMember(object, "Data", MakeBorrowedString(file.Data));
  }
  std::string text;
  WriteJson(kCompactJsonStyle, root, text);
  return text;
}

namespace {

// Fills `request` (emptied first, so a failure never leaves the old contents behind) from the
// tree that `parse` makes; see FromJsonString.
template <typename Parse>
bool ReadRequest(CRequest& request, const Parse& parse) {
  request = CRequest();
  try {
    JsonValue root;
    std::string ignoredError;  // text that is not JSON reads as an empty document
    parse(ignoredError, root);
    request.Command = AsWString(GetMember(root, "Command"), L"");
    request.CommandAtribute = AsWString(GetMember(root, "CommandAtribute"), L"");
    ReadParams(GetMember(root, "CommandParams"), request.CommandParams,
               [](std::wstring key) { return key; });
    ReadParams(GetMember(root, "RequestParams"), request.RequestParams,
               [](std::wstring key) { return ToUpperW(std::move(key)); });
    JsonValue* files = FindMember(root, "InputData");
    if (files != nullptr && IsArray(*files)) {
      for (JsonMember& element : MutableMembers(*files)) {
        JsonValue& object = element.value;
        CMimeFile file;
        file.Name = AsWString(GetMember(object, "Name"), L"");
        file.FileName = AsWString(GetMember(object, "FileName"), L"");
        // A missing, unknown or null type gives Binary, never the default Text.
        file.Type = GetMimeType(AsString(GetMember(object, "Type")));
        // Contents can be megabytes: moved out of the parsed tree, not copied.
        if (JsonValue* data = FindMember(object, "Data")) file.Data = TakeString(*data);
        request.InputData.push_back(std::move(file));
      }
    }
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

bool CRequest::FromJsonString(const std::string& json) {
  return ReadRequest(
      *this, [&json](std::string& error, JsonValue& root) { ParseJson(error, root, json); });
}

bool CRequest::FromJsonString(std::string&& json) {
  // The text is ours: a file's contents are read within it, not copied out of it.
  return ReadRequest(
      *this, [&json](std::string& error, JsonValue& root) { ParseJsonInPlace(error, root, json); });
}

}  // namespace Pendrel
