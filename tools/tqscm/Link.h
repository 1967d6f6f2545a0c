// A connection: somebody's handle, or a program of services.
#pragma once

#include "EventLoop.h"

#include <deque>
#include <string>
#include <sys/socket.h>

namespace tqscm {

class Link;

class LinkOwner {
  public:
    virtual ~LinkOwner() = default;
    virtual void OnMessage(Link& link, const std::string& packet) = 0;
    // The other end has gone, cannot be understood or takes nothing any more. The link hears nothing after
    // this; the owner closes it.
    virtual void OnEnd(Link& link) = 0;
};

// Neither end ever waits for the other: what does not fit is sent later, and meanwhile nothing is read. An
// end that takes nothing for as long as the limit counts as gone.
class Link : public Source {
  public:
    // Owned by the loop until it is closed. Throws std::system_error.
    static Link& Watch(EventLoop& loop, LinkOwner& owner, Descriptor socket, std::chrono::milliseconds limit);

    // Of who connected, as the kernel knows it.
    uid_t User() const { return m_peer.uid; }
    pid_t Process() const { return m_peer.pid; }

    // Who hears of it from now on.
    void SetOwner(LinkOwner& owner) { m_owner = &owner; }
    void Close();

    void Send(std::string packet);
    // Reads nothing more until it is told to go on. The system hears of it only if something comes meanwhile.
    void Hold();
    void GoOn();
    // Hands over what came before the end.
    void ReadRest();

    void OnReady(unsigned events) override;
    bool ComesFirst() const override { return m_comesFirst; }
    void ComeFirst() { m_comesFirst = true; }

  private:
    Link(EventLoop& loop, LinkOwner& owner, Descriptor socket, std::chrono::milliseconds limit);
    bool ReadOne(std::string& packet);
    void SendWaiting();
    void UpdateEvents();

    EventLoop& m_loop;
    LinkOwner* m_owner;
    const Descriptor m_socket;
    const std::chrono::milliseconds m_limit;
    ucred m_peer{};
    std::deque<std::string> m_unsent;
    Timer m_full;
    bool m_comesFirst = false;
    bool m_isHeld = false;
    bool m_isMuted = false;
    bool m_hasEnded = false;
    unsigned m_events;
};

}  // namespace tqscm
