// The files below the diagnostic folder, by kind.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qbv::reader {

enum class FileKind { hang, memory, allocation, leaks, power, sample, record, profile, stacks, other };

// "hang", "memory", "allocation", "leaks", "power", "sample", "record", "profile", "stacks", "other".
const char* kindName(FileKind kind);

// Whether files of the kind hold the text of a report.
bool isReportKind(FileKind kind);

struct DiagnosticFile {
  std::string path;
  std::uint32_t processId = 0;
  FileKind kind = FileKind::other;
  std::string level;  // "light" to "freeze" of a hang report, else ""
  std::string time;   // local, "yyyy-MM-dd HH:mm:ss": of the name's report id, else of the last change
};

// "~/Library/Logs/quibapp/Diagnostic", the home folder by HOME or the user data base; "" when there is none.
std::string diagnosticRoot();

// What a file is, by its path below the root ("4242/freeze/light/…"). Pure; `time` and `path` stay empty but
// for a report id in the name.
DiagnosticFile classify(const std::string& pathBelowRoot);

// All files of all processes, or of one, newest first; a root that does not exist is empty. What cannot be
// read is told in `errors`, one sentence each. Symbolic links are not followed.
std::vector<DiagnosticFile> listDiagnosticFiles(const std::string& root,
                                                std::optional<std::uint32_t> processId,
                                                std::vector<std::string>& errors);

// The file's bytes. Nothing, with the reason in `error`, when it is no regular file, cannot be read or is
// larger than 64 MiB.
std::optional<std::string> readReportFile(const std::string& path, std::string& error);

}  // namespace qbv::reader
