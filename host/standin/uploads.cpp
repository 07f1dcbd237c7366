#include "host/standin/uploads.h"

#include <filesystem>
#include <optional>
#include <utility>

#include "host/quibvitalscope_host.hpp"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"

namespace qbv::standin {

namespace {

namespace fs = std::filesystem;

bool hasFiles(const std::string& folder) {
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error))
    if (entry->is_regular_file(error)) return true;
  return false;
}

// Below the outbox as below the diagnostic folder of all processes: "4242/freeze/light".
std::string placeInOutbox(const std::string& folder) {
  const fs::path all = expandingTildeInPath("~/Library/Logs/quibapp/Diagnostic");
  return fs::path(folder).lexically_normal().lexically_relative(all.lexically_normal()).string();
}

bool isSame(const fs::path& file, const fs::path& copy) {
  std::error_code error;
  return fs::file_size(file, error) == fs::file_size(copy, error) && !error &&
         fs::last_write_time(file, error) == fs::last_write_time(copy, error) && !error;
}

// False, with the reason, when it could not be copied though it is there.
bool copyFile(const fs::path& file, const fs::path& copy, std::error_code& error) {
  const auto changed = fs::last_write_time(file, error);
  const fs::path unfinished = copy.string() + ".part";
  if (!error) fs::copy_file(file, unfinished, fs::copy_options::overwrite_existing, error);
  if (!error) fs::last_write_time(unfinished, changed, error);
  if (!error) fs::rename(unfinished, copy, error);
  std::error_code ignored;
  return !error || !fs::exists(file, ignored);
}

}  // namespace

int copyNewFiles(const std::string& source, const std::string& target, std::string& error) {
  int copied = 0;
  std::error_code failure;
  for (fs::recursive_directory_iterator entry(source, failure), end; !failure && entry != end;
       entry.increment(failure)) {
    std::error_code unreadable;
    if (!fs::is_regular_file(entry->symlink_status(unreadable))) continue;
    const fs::path copy = target / entry->path().lexically_relative(source);
    if (isSame(entry->path(), copy)) continue;
    if (!platform().files.createDirectory(copy.parent_path().string())) {
      error = "cannot make the folder " + copy.parent_path().string();
      return -1;
    }
    std::error_code reason;
    if (!copyFile(entry->path(), copy, reason)) {
      error = "cannot copy " + entry->path().string() + " to " + copy.string() + ": " + reason.message();
      return -1;
    }
    if (!reason) ++copied;
  }
  return copied;
}

Uploads::Uploads(UploadConsent consent)
    : consent_(std::move(consent)),
      queue_(platform().dispatch.dispatch_queue_create("standin.uploads", QueueKind::serial)) {}

void Uploads::offer() {
  host::setUploadHelper({[this](bool isUserUpload) { return request(isUserUpload); },
                         [this](const std::string& json) { hearFeedback(json); }});
}

std::string Uploads::request(bool isUserUpload) {
  const std::optional<std::string> folder = host::uploadFolder();
  if (!folder || !hasFiles(*folder)) return "";
  const std::lock_guard hold(lock_);
  // One that has not begun will take along what is new.
  if (!waiting_.insert(*folder).second) return "";
  std::string id = QBVTool::currentProcessID() + "-" + std::to_string(++requested_);
  platform().dispatch.dispatch_async(queue_, [=, this] { carryOut(id, *folder, isUserUpload); });
  return id;
}

void Uploads::carryOut(const std::string& id, const std::string& folder, bool isUserUpload) {
  {
    const std::lock_guard hold(lock_);
    waiting_.erase(folder);
  }
  int files = 0;
  std::string error;
  if (consent_.command.empty())
    files = copyNewFiles(folder, consent_.folder + "/" + placeInOutbox(folder), error);
  else if (!runCommand(id, folder, isUserUpload))
    error = "the upload command failed for " + folder;
  if (!error.empty()) platform().log.NSLog("QuibVitalscope: " + error);
  host::post("OnUploadFeedbackResult", Value::Dictionary{{"reqid", id},
                                                         {"result", error.empty() ? "done" : "failed"},
                                                         {"folder", folder},
                                                         {"files", files}});
}

// The exit status comes over standard output, which the command cannot reach.
bool Uploads::runCommand(const std::string& id, const std::string& folder, bool isUserUpload) const {
  const std::string line = "UPLOAD_FOLDER=" + shellWord(folder) + " UPLOAD_ID=" + shellWord(id) +
                           " UPLOAD_BY_USER=" + (isUserUpload ? "1" : "0") + " bash -c " +
                           shellWord(consent_.command) + " </dev/null >/dev/null; echo $?";
  return platform().processes.run(line) == "0\n";
}

void Uploads::hearFeedback(const std::string& json) {
  const Value feedback = Value::fromJSON(json).value_or(Value());
  const std::lock_guard hold(lock_);
  ++(feedback["result"] == Value("done") ? done_ : failed_);
}

Value Uploads::status() const {
  const std::lock_guard hold(lock_);
  Value::Dictionary facts{{"requested", static_cast<long long>(requested_)},
                          {"done", static_cast<long long>(done_)},
                          {"failed", static_cast<long long>(failed_)}};
  if (consent_.command.empty())
    facts["to"] = consent_.folder;
  else
    facts["command"] = consent_.command;
  return facts;
}

}  // namespace qbv::standin
