// Who writes records: the log, and those it is compared to.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace Quellan::Corvel::Bench {

// Writes records of one size to a file, each of them flushed to the disk before `Write` returns. For several
// threads.
class Writer {
  public:
    virtual ~Writer() = default;
    virtual void Write() = 0;
};

enum class WriterKind { Log, Bare, Spdlog };

std::string_view NameOf(WriterKind kind);
// The bare loop has one descriptor a thread or process, so each of its makers has one for itself.
std::unique_ptr<Writer> MakeWriter(WriterKind kind, const std::string& path);

}  // namespace Quellan::Corvel::Bench
