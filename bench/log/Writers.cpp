#include "log/Writers.h"

#include "TQLib/log/TQLog.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

namespace Quellan::Corvel::Bench {

namespace {

constexpr const wchar_t* Message = L"The connection to the server was lost and is being made anew.";
constexpr const char* NarrowMessage = "The connection to the server was lost and is being made anew.";

class LogWriter : public Writer {
  public:
    explicit LogWriter(const std::string& path)
        : m_log(TQLog::GetLog(std::filesystem::path(path).wstring().c_str(), 1ULL << 40)) {}
    void Write() override { m_log->AddMsg(Message, TQLogLevel::Information); }

  private:
    TQLogPtr m_log;
};

// Lock, seek, write, flush, unlock, and no record to be made.
class BareWriter : public Writer {
  public:
    explicit BareWriter(const std::string& path)
        : m_file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)), m_record(RecordSize, 'x') {
        m_record.back() = '\n';
    }
    ~BareWriter() override { close(m_file); }

    void Write() override {
        const std::scoped_lock lock(m_threads);
        Lock(F_WRLCK);
        lseek(m_file, 0, SEEK_END);
        if (write(m_file, m_record.data(), m_record.size()) < 0) std::perror("write");
        fdatasync(m_file);
        Lock(F_UNLCK);
    }

  private:
    // Of the log's records of that message, with usual names of program and user.
    static constexpr std::size_t RecordSize = 190;

    void Lock(short type) {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        lock.l_start = off_t{1} << 60;
        lock.l_len = 1;
        fcntl(m_file, F_OFD_SETLKW, &lock);
    }

    std::mutex m_threads;  // the lock on the file is the descriptor's
    const int m_file;
    std::string m_record;
};

// As spdlog's own sink for a file, with a flush and a sync behind each record.
class SyncedSink : public spdlog::sinks::base_sink<std::mutex> {
  public:
    explicit SyncedSink(const std::string& path) : m_file(std::fopen(path.c_str(), "ab"), std::fclose) {}

  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t text;
        formatter_->format(message, text);
        std::fwrite(text.data(), 1, text.size(), m_file.get());
        flush_();
    }
    void flush_() override {
        std::fflush(m_file.get());
        fdatasync(fileno(m_file.get()));
    }

  private:
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> m_file;
};

class SpdlogWriter : public Writer {
  public:
    explicit SpdlogWriter(const std::string& path) : m_log("bench", std::make_shared<SyncedSink>(path)) {
        m_log.set_pattern(
            "%L %T.%e [application : %P (module){%t}] -- [] -- [user {S-1-5-21-1958239279-964727324-"
            "2727989428-1000}]%n    %v");
    }
    void Write() override { m_log.info(NarrowMessage); }

  private:
    spdlog::logger m_log;
};

}  // namespace

std::string_view NameOf(WriterKind kind) {
    switch (kind) {
        case WriterKind::Log:
            return "TQLog";
        case WriterKind::Bare:
            return "lock, seek, write, sync";
        default:
            return "spdlog, sync";
    }
}

std::unique_ptr<Writer> MakeWriter(WriterKind kind, const std::string& path) {
    switch (kind) {
        case WriterKind::Log:
            return std::make_unique<LogWriter>(path);
        case WriterKind::Bare:
            return std::make_unique<BareWriter>(path);
        default:
            return std::make_unique<SpdlogWriter>(path);
    }
}

}  // namespace Quellan::Corvel::Bench
