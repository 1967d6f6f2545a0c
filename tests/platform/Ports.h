// Completion ports in short words.
#pragma once

#include "WaitObjects.h"

#include <optional>
#include <ostream>

namespace Quellan::Corvel::Test {

struct Packet {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;

    bool operator==(const Packet&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Packet& packet) {
        return out << "{bytes " << packet.bytes << ", key " << packet.key << ", " << packet.overlapped << '}';
    }
};

inline Owned Port(DWORD concurrency = 0) {
    return Owned(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, concurrency));
}

inline DWORD Post(HANDLE port, ULONG_PTR key) {
    return CodeOf(PostQueuedCompletionStatus(port, 0, key, nullptr));
}

// The code of the call, 0 with a packet in `packet`.
inline DWORD Get(HANDLE port, Packet& packet, DWORD ms) {
    return CodeOf(GetQueuedCompletionStatus(port, &packet.bytes, &packet.key, &packet.overlapped, ms));
}

// The key of a packet, which must come; 0 when it does not.
inline ULONG_PTR Key(HANDLE port, DWORD ms = Patience) {
    Packet packet;
    return Get(port, packet, ms) == 0 ? packet.key : 0;
}

// The keys of all packets that are there.
inline std::vector<ULONG_PTR> Drain(HANDLE port) {
    std::vector<ULONG_PTR> keys;
    for (Packet packet; Get(port, packet, 0) == 0;)
        keys.push_back(packet.key);
    return keys;
}

// A thread that takes one packet and ends with its key, or with the code of its failure plus Failed.
class Taker : public Worker {
  public:
    static constexpr DWORD Failed = 0x10000;

    explicit Taker(HANDLE port, DWORD ms = INFINITE)
        : Worker([port, ms]() -> DWORD {
              Packet packet;
              const DWORD code = Get(port, packet, ms);
              return code ? Failed + code : static_cast<DWORD>(packet.key);
          }) {}
};

}  // namespace Quellan::Corvel::Test
