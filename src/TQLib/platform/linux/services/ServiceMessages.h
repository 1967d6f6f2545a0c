// What is said between the service manager, those who ask it and the programs of services
// (docs/formats/service-manager.md): one packet a message, nobody vouches for its bytes.
//
// A message is a struct with its kind and one list of its fields, from which it is written and read.
// Everything here may throw std::bad_alloc.
#pragma once

#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/services/Services.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Quellan::Platform {

constexpr DWORD ServiceProtocolVersion = 1;
constexpr std::size_t MostServiceMessageBytes = std::size_t{64} << 10;
constexpr std::size_t MostServiceNameCharacters = 256;

// The numbers are the protocol's.
enum class ServiceMessage : DWORD {
    OpenManager = 1,
    OpenService = 2,
    CreateService = 3,
    DeleteService = 4,
    ChangeService = 5,
    QueryConfig = 6,
    QueryStatus = 7,
    StartService = 8,
    ControlService = 9,
    EnumServices = 10,
    EnumDependents = 11,
    FindName = 12,
    KillService = 13,
    AwaitChange = 14,
    Attach = 32,
    Status = 33,
    Done = 34,
    Reply = 64,
    ConfigReply = 65,
    StatusReply = 66,
    EnumReply = 67,
    NameReply = 68,
    OpenReply = 69,
    Run = 96,
    Control = 97,
    Finish = 98,
};

namespace ServiceFields {

// Numbers of 32 and of 64 bits least significant byte first, texts and lists with their length before them.
class Writer {
  public:
    void operator()(DWORD number) {
        for (int shift = 0; shift < 32; shift += 8)
            m_bytes += static_cast<char>(number >> shift);
    }
    void operator()(std::uint64_t number) {
        (*this)(static_cast<DWORD>(number));
        (*this)(static_cast<DWORD>(number >> 32));
    }
    void operator()(const std::string& text) {
        (*this)(static_cast<DWORD>(text.size()));
        m_bytes += text;
    }
    template <class Item>
    void operator()(const std::vector<Item>& items) {
        (*this)(static_cast<DWORD>(items.size()));
        for (const Item& item : items)
            (*this)(item);
    }
    template <class Item>
    void operator()(const std::optional<Item>& item) {
        (*this)(static_cast<DWORD>(item.has_value()));
        if (item) (*this)(*item);
    }
    template <class Fields>
    requires std::is_class_v<Fields>
    void operator()(const Fields& fields) { VisitFields(fields, *this); }

    std::string Take() { return std::move(m_bytes); }

  private:
    std::string m_bytes;
};

// Goes on with zeros and nothing once something did not fit.
class Reader {
  public:
    explicit Reader(std::string_view bytes) : m_rest(bytes) {}

    void operator()(DWORD& number) {
        const std::string_view bytes = Next(4);
        number = 0;
        for (std::size_t i = bytes.size(); i-- > 0;)
            number = number << 8 | static_cast<unsigned char>(bytes[i]);
    }
    void operator()(std::uint64_t& number) {
        DWORD low = 0, high = 0;
        (*this)(low);
        (*this)(high);
        number = std::uint64_t{high} << 32 | low;
    }
    void operator()(std::string& text) {
        DWORD size = 0;
        (*this)(size);
        text = Next(size);
        if (text.find('\0') != text.npos || !IsValidText(text)) Fail();
    }
    template <class Item>
    void operator()(std::vector<Item>& items) {
        DWORD count = 0;
        (*this)(count);
        items.clear();
        for (; count > 0 && m_isGood; --count)
            (*this)(items.emplace_back());
    }
    template <class Item>
    void operator()(std::optional<Item>& item) {
        DWORD isThere = 0;
        (*this)(isThere);
        if (isThere > 1) Fail();
        if (isThere == 1)
            (*this)(item.emplace());
        else
            item.reset();
    }
    template <class Fields>
    requires std::is_class_v<Fields>
    void operator()(Fields& fields) { VisitFields(fields, *this); }

    // Whether all was understood and nothing is left.
    bool IsComplete() const { return m_isGood && m_rest.empty(); }

  private:
    void Fail() {
        m_isGood = false;
        m_rest = {};
    }
    std::string_view Next(std::size_t size) {
        if (size > m_rest.size()) {
            Fail();
            return {};
        }
        const std::string_view bytes = m_rest.substr(0, size);
        m_rest.remove_prefix(size);
        return bytes;
    }

    std::string_view m_rest;
    bool m_isGood = true;
};

template <class Status, class Visitor>
requires std::is_same_v<std::remove_const_t<Status>, SERVICE_STATUS>
void VisitFields(Status& status, Visitor& visit) {
    visit(status.dwServiceType);
    visit(status.dwCurrentState);
    visit(status.dwControlsAccepted);
    visit(status.dwWin32ExitCode);
    visit(status.dwServiceSpecificExitCode);
    visit(status.dwCheckPoint);
    visit(status.dwWaitHint);
}

template <class Fields, class Visitor>
requires requires(Fields& fields, Visitor& visit) {
    Fields::Visit(fields, visit);
}
void VisitFields(Fields& fields, Visitor& visit) {
    Fields::Visit(fields, visit);
}

}  // namespace ServiceFields

// None of the kinds above where the bytes are too few.
inline ServiceMessage KindOfMessage(std::string_view bytes) {
    DWORD kind = 0;
    ServiceFields::Reader read(bytes.substr(0, sizeof kind));
    read(kind);
    return static_cast<ServiceMessage>(kind);
}

template <class Message>
std::string FormatMessage(const Message& message) {
    ServiceFields::Writer write;
    write(static_cast<DWORD>(Message::Kind));
    write(message);
    return write.Take();
}

// False for bytes that are not wholly a message of this kind.
template <class Message>
bool ParseMessage(std::string_view bytes, Message& message) {
    DWORD kind = 0;
    ServiceFields::Reader read(bytes);
    read(kind);
    if (kind != static_cast<DWORD>(Message::Kind)) return false;
    read(message);
    return read.IsComplete();
}

// What several messages have in it.

struct FailureAction {
    DWORD type = 0;   // SC_ACTION_TYPE
    DWORD delay = 0;  // milliseconds

    bool operator==(const FailureAction&) const = default;
    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.type);
        visit(fields.delay);
    }
};

struct FailureActions {
    DWORD resetPeriod = 0;  // seconds
    std::vector<FailureAction> actions;

    bool operator==(const FailureActions&) const = default;
    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.resetPeriod);
        visit(fields.actions);
    }
};

template <class T>
using Given = T;

// The record of a service, but for its name; or what of it is to be changed.
template <template <class> class Field>
struct ServiceSettings {
    Field<DWORD> type{};
    Field<DWORD> start{};
    Field<DWORD> errorControl{};
    Field<std::string> commandLine{};
    Field<std::string> group{};
    Field<std::vector<std::string>> dependencies{};
    Field<std::string> account{};
    Field<std::string> displayName{};
    Field<std::string> description{};
    Field<std::string> rebootMessage{};
    Field<std::string> failureCommand{};
    Field<FailureActions> failure{};
    Field<DWORD> failsWithoutCrash{};  // failure actions for a service that stops with an exit code, too
    Field<DWORD> delayed{};

    bool operator==(const ServiceSettings&) const = default;

    // Sets the fields of `config` that are given here.
    void ApplyTo(ServiceSettings<Given>& config) const {
        const auto apply = [](const auto& given, auto& field) {
            if (given) field = *given;
        };
        apply(type, config.type);
        apply(start, config.start);
        apply(errorControl, config.errorControl);
        apply(commandLine, config.commandLine);
        apply(group, config.group);
        apply(dependencies, config.dependencies);
        apply(account, config.account);
        apply(displayName, config.displayName);
        apply(description, config.description);
        apply(rebootMessage, config.rebootMessage);
        apply(failureCommand, config.failureCommand);
        apply(failure, config.failure);
        apply(failsWithoutCrash, config.failsWithoutCrash);
        apply(delayed, config.delayed);
    }
    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.type);
        visit(fields.start);
        visit(fields.errorControl);
        visit(fields.commandLine);
        visit(fields.group);
        visit(fields.dependencies);
        visit(fields.account);
        visit(fields.displayName);
        visit(fields.description);
        visit(fields.rebootMessage);
        visit(fields.failureCommand);
        visit(fields.failure);
        visit(fields.failsWithoutCrash);
        visit(fields.delayed);
    }
};
using ServiceConfig = ServiceSettings<Given>;
using ServiceChange = ServiceSettings<std::optional>;

struct NamedStatus {
    std::string name;
    SERVICE_STATUS status{};

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.name);
        visit(fields.status);
    }
};

struct ListedService {
    std::string name;
    std::string displayName;
    SERVICE_STATUS status{};
    DWORD process = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.name);
        visit(fields.displayName);
        visit(fields.status);
        visit(fields.process);
    }
};

// A message without fields.
template <ServiceMessage kind>
struct EmptyMessage {
    static constexpr ServiceMessage Kind = kind;
    template <class Fields, class Visitor>
    static void Visit(Fields&, Visitor&) {}
};

// Requests. A connection begins with one of the first three and is the handle from then on.

struct OpenManagerMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::OpenManager;
    DWORD version = ServiceProtocolVersion;
    DWORD access = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.version);
        visit(fields.access);
    }
};

struct OpenServiceMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::OpenService;
    DWORD version = ServiceProtocolVersion;
    DWORD access = 0;
    std::string name;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.version);
        visit(fields.access);
        visit(fields.name);
    }
};

struct CreateServiceMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::CreateService;
    DWORD version = ServiceProtocolVersion;
    DWORD access = 0;
    std::string name;
    ServiceConfig config;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.version);
        visit(fields.access);
        visit(fields.name);
        visit(fields.config);
    }
};

using DeleteServiceMessage = EmptyMessage<ServiceMessage::DeleteService>;
using KillServiceMessage = EmptyMessage<ServiceMessage::KillService>;
using QueryConfigMessage = EmptyMessage<ServiceMessage::QueryConfig>;
using QueryStatusMessage = EmptyMessage<ServiceMessage::QueryStatus>;

struct ChangeServiceMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::ChangeService;
    ServiceChange change;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.change);
    }
};

struct StartServiceMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::StartService;
    std::vector<std::string> arguments;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.arguments);
    }
};

struct ControlServiceMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::ControlService;
    DWORD control = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.control);
    }
};

struct EnumServicesMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::EnumServices;
    DWORD type = 0;
    DWORD state = 0;
    std::optional<std::string> group;
    std::string after;  // where the part that was answered last ended, empty at first

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.type);
        visit(fields.state);
        visit(fields.group);
        visit(fields.after);
    }
};

struct EnumDependentsMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::EnumDependents;
    DWORD state = 0;
    DWORD skipped = 0;  // how many were answered already

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.state);
        visit(fields.skipped);
    }
};

struct FindNameMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::FindName;
    DWORD byDisplayName = 0;
    std::string name;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.byDisplayName);
        visit(fields.name);
    }
};

// Answered when the service's state or check point is another one.
struct AwaitChangeMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::AwaitChange;
    DWORD state = 0;
    DWORD checkPoint = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.state);
        visit(fields.checkPoint);
    }
};

// Answers. Everything that failed is answered by Reply.

// What the handle grants.
struct OpenReplyMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::OpenReply;
    DWORD access = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.access);
    }
};

struct ReplyMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::Reply;
    DWORD code = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.code);
    }
};

struct ConfigReplyMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::ConfigReply;
    ServiceConfig config;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.config);
    }
};

// For controls, the code may be a failure.
struct StatusReplyMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::StatusReply;
    DWORD code = 0;
    SERVICE_STATUS status{};
    DWORD process = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.code);
        visit(fields.status);
        visit(fields.process);
    }
};

struct EnumReplyMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::EnumReply;
    DWORD goesOn = 0;
    std::vector<ListedService> services;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.goesOn);
        visit(fields.services);
    }
};

struct NameReplyMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::NameReply;
    std::string name;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.name);
    }
};

// The program of services: what it says.

// At first, and to a manager that was started anew: what of its services have been started, as they are.
struct AttachMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::Attach;
    DWORD version = ServiceProtocolVersion;
    std::vector<NamedStatus> services;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.version);
        visit(fields.services);
    }
};

struct StatusMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::Status;
    NamedStatus service;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.service);
    }
};

// The answer to Run and Control.
struct DoneMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::Done;
    DWORD code = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.code);
    }
};

// And what it is told. Attach is answered by Reply.

struct RunMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::Run;
    std::string name;
    DWORD isAlone = 0;  // the process is for this service: the table's name for it does not matter
    std::vector<std::string> arguments;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.name);
        visit(fields.isAlone);
        visit(fields.arguments);
    }
};

struct ControlMessage {
    static constexpr ServiceMessage Kind = ServiceMessage::Control;
    std::string name;
    DWORD control = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.name);
        visit(fields.control);
    }
};

// All its services have stopped, it is to end.
using FinishMessage = EmptyMessage<ServiceMessage::Finish>;

}  // namespace Quellan::Platform
