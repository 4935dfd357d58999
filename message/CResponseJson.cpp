// The JSON forms of a response: the full form that handlers answer with, the common form
// that hosts pass on to their clients, and the standard response file that a handler may
// send as its only result file.
#include <string>
#include <string_view>
#include <utility>

#include "json/JsonParser.h"
#include "json/JsonValue.h"
#include "json/JsonWriter.h"
#include "json/TextConversion.h"
#include "message/CResponse.h"

namespace Pendrel {
namespace {

constexpr EStatus kFileListStatus = static_cast<EStatus>(1);
constexpr EStatus kStdResponseResetStatus = static_cast<EStatus>(3);

JsonValue MakeBool(bool flag) {
  JsonValue value = MakeValue(JsonKind::Bool);
  SetBool(value, flag);
  return value;
}

// {"pos": pos, "total": total}, the shape of every progress member.
JsonValue MakePosTotal(std::int32_t pos, std::int32_t total) {
  JsonValue object = MakeObject();
  AddMember(object, "pos", MakeNumber(pos));
  AddMember(object, "total", MakeNumber(total));
  return object;
}

void AddProgress(JsonValue& root, const CProgress& progress) {
  AddMember(root, "phase", MakePosTotal(progress.PhasePos, progress.PhaseTotal));
  AddMember(root, "phaseProgress",
            MakePosTotal(progress.PhaseProgressPos, progress.PhaseProgressTotal));
  JsonValue& task = AddMember(root, "taskProgress",
                              MakePosTotal(progress.TaskProgressPos, progress.TaskProgressTotal));
  AddMember(task, "time", MakeNumber(progress.TaskProgressTime));
}

std::int32_t MemberInt(const JsonValue& object, std::string_view name) {
  return AsInt(GetMember(object, name));
}

std::string Write(const JsonValue& root) {
  std::string text;
  WriteJson(kCompactJsonStyle, root, text);
  return text;
}

}  // namespace

std::string CResponse::ToJsonString() const {
  JsonValue root = MakeObject();
  if (!Data.empty()) {
    JsonValue& files = AddMember(root, "Data", MakeArray());
    for (const CMimeFile& file : Data) {
      JsonValue& object = Append(files, MakeObject());
      AddMember(object, "Type", MakeNumber(file.Type));
      AddMember(object, "FileName", MakeString(file.FileName));
      AddMember(object, "Title", MakeString(file.Name));
      // Contents can be megabytes: the tree refers to the record's bytes while it is written.
      AddMember(object, "Data", MakeBorrowedString(file.Data));
      AddMember(object, "IsAttachment", MakeBool(file.IsAttachment));
    }
  }
  AddMember(root, "status", MakeNumber(Status));
  if (!Session.empty()) AddMember(root, "session", MakeString(Session));
  JsonValue& parameters = AddMember(root, "Parameters", MakeObject());
  for (const auto& [key, value] : Parameters) AddMember(parameters, key, MakeString(value));
  if (Progress.IsSet) AddProgress(root, Progress);
  return Write(root);
}

std::string CResponse::ToCommonJsonString() const {
  JsonValue root = MakeObject();
  AddMember(root, "status", MakeNumber(Status));
  if (!Session.empty()) AddMember(root, "session", MakeString(Session));
  if (Progress.IsSet) AddProgress(root, Progress);
  // Appended without looking for a member of the same name: a parameter called "status"
  // gives a second "status" member after the first.
  for (const auto& [key, value] : Parameters) AddMember(root, key, MakeString(value));
  return Write(root);
}

bool CResponse::FromJsonString(std::string text) {
  try {
    JsonValue root;
    std::string ignoredError;  // text that is not JSON reads as an empty document
    // The text is ours: a file's contents are read within it, not copied out of it.
    ParseJsonInPlace(ignoredError, root, text);

    JsonValue* files = FindMember(root, "Data");
    if (files != nullptr && IsArray(*files)) {
      // A file-list answer: its status, session, parameters and progress are not read.
      for (JsonMember& element : MutableMembers(*files)) {
        JsonValue& object = element.value;
        CMimeFile file;
        file.Type = static_cast<EMimeType>(MemberInt(object, "Type"));
        file.FileName = AsWString(GetMember(object, "FileName"), L"");
        file.Name = AsWString(GetMember(object, "Title"), L"");
        // Contents can be megabytes: moved out of the parsed tree, not copied.
        if (JsonValue* data = FindMember(object, "Data")) file.Data = TakeString(*data);
        if (HasMember(object, "IsAttachment")) {
          file.IsAttachment = AsBool(GetMember(object, "IsAttachment"));
        }
        Data.push_back(std::move(file));
      }
      Status = kFileListStatus;
      return true;
    }

    Status = static_cast<EStatus>(MemberInt(root, "status"));
    Session =
        HasMember(root, "session") ? AsWString(GetMember(root, "session"), L"") : std::wstring();
    for (const JsonMember& member : Members(GetMember(root, "Parameters"))) {
      Parameters[Utf8ToUtf16(member.name)] = AsWString(member.value, L"");
    }
    Progress.IsSet = false;
    // "phaseProgress" alone decides whether the document reports progress.
    if (HasMember(root, "phaseProgress")) {
      Progress.IsSet = true;
      const JsonValue& phase = GetMember(root, "phase");
      const JsonValue& phaseProgress = GetMember(root, "phaseProgress");
      const JsonValue& taskProgress = GetMember(root, "taskProgress");
      Progress.PhasePos = MemberInt(phase, "pos");
      Progress.PhaseTotal = MemberInt(phase, "total");
      Progress.PhaseProgressPos = MemberInt(phaseProgress, "pos");
      Progress.PhaseProgressTotal = MemberInt(phaseProgress, "total");
      Progress.TaskProgressPos = MemberInt(taskProgress, "pos");
      Progress.TaskProgressTotal = MemberInt(taskProgress, "total");
      Progress.TaskProgressTime = MemberInt(taskProgress, "time");
    }
    return true;
  } catch (...) {
    return false;
  }
}

void CResponse::ParseStdResponseFromFileData() {
  if (Data.size() != 1 || Data.front().Type != Json) return;
  try {
    JsonValue root;
    std::string ignoredError;  // text that is not JSON has no "status" and is left alone
    ParseJson(ignoredError, root, Data.front().Data);
    if (!HasMember(root, "status")) return;

    Progress.IsSet = false;
    Session.clear();
    Status = kStdResponseResetStatus;
    // Member by member in document order, so a repeated key is applied again and wins.
    for (const JsonMember& member : Members(root)) {
      const std::string& key = member.name;
      const JsonValue& value = member.value;
      if (key == "status") {
        Status = static_cast<EStatus>(AsInt(value));
      } else if (key == "session") {
        Session = AsWString(value, L"");
      } else if (key == "phase") {
        Progress.IsSet = true;
        Progress.PhasePos = MemberInt(value, "pos");
        Progress.PhaseTotal = MemberInt(value, "total");
      } else if (key == "phaseProgress") {
        Progress.IsSet = true;
        Progress.PhaseProgressPos = MemberInt(value, "pos");
        Progress.PhaseProgressTotal = MemberInt(value, "total");
      } else if (key == "taskProgress") {
        Progress.IsSet = true;
        Progress.TaskProgressPos = MemberInt(value, "pos");
        Progress.TaskProgressTotal = MemberInt(value, "total");
        Progress.TaskProgressTime = MemberInt(value, "time");
      } else {
        Parameters[Utf8ToUtf16(key)] = AsWString(value, L"");
      }
    }
    Data.clear();  // the file has been consumed
  } catch (...) {
    // Running out of memory: what was applied stays, the file stays.
  }
}

}  // namespace Pendrel
