// The stand-in host's upload helper: copies what it is asked for into a folder, or has a command do it.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/value.h"

namespace qbv::standin {

// What the user allowed; at most one is set, and neither means that nothing is uploaded.
struct UploadConsent {
  std::string folder;   // absolute: where copies go
  std::string command;  // for a shell; gets UPLOAD_FOLDER, UPLOAD_ID and UPLOAD_BY_USER ("1" or "0")
  explicit operator bool() const { return !folder.empty() || !command.empty(); }
};

// Requests are answered at once and done later, one after the other, on a queue of their own; each ends with
// the notification "OnUploadFeedbackResult" and its "reqid", "result" ("done" or "failed"), "folder" and
// "files" (those that were copied).
class Uploads {
 public:
  // Must live as long as the process.
  explicit Uploads(UploadConsent consent);

  // Becomes the host's upload helper. Once.
  void offer();
  // "to" or "command", and how many were "requested", "done" and "failed" by now. Any thread.
  Value status() const;

 private:
  std::string request(bool isUserUpload);
  void carryOut(const std::string& id, const std::string& folder, bool isUserUpload);
  bool runCommand(const std::string& id, const std::string& folder, bool isUserUpload) const;
  void hearFeedback(const std::string& json);

  const UploadConsent consent_;
  const DispatchQueueRef queue_;
  mutable std::mutex lock_;  // of all below
  std::set<std::string> waiting_;
  std::int64_t requested_ = 0;
  std::int64_t done_ = 0;
  std::int64_t failed_ = 0;
};

// Copies every regular file below `source` that `target` lacks or has in another size or with another date;
// what was made meanwhile or has gone is not missed. Folders are made 0700; a reader of `target` sees whole
// files only. How many were copied; -1, with the reason in `error`, when one could not be.
int copyNewFiles(const std::string& source, const std::string& target, std::string& error);

}  // namespace qbv::standin
