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
    // The other end has gone, or cannot be understood.
    virtual void OnEnd(Link& link) = 0;
};

// Neither end ever waits for the other: what does not fit is sent later, and meanwhile nothing is read.
class Link : public Source {
  public:
    enum class Role { New, Manager, Service, Process };

    // Owned by the loop until the owner forgets it.
    static Link& Watch(EventLoop& loop, LinkOwner& owner, Descriptor socket);

    // Of who connected, as the kernel knows it.
    uid_t User() const { return m_peer.uid; }
    pid_t Process() const { return m_peer.pid; }
    int Fd() const { return m_socket.Get(); }

    void Send(std::string packet);
    // Reads nothing more until it is told to go on.
    void Hold();
    void GoOn();
    // Hands over what came before the end.
    void ReadRest();

    void OnReady(unsigned events) override;
    bool ComesFirst() const override { return role == Role::Process; }

    // What the manager knows of it.
    Role role = Role::New;
    unsigned access = 0;
    std::string service;     // the key of the handle's service
    bool isWaiting = false;  // for an answer
    std::string held;        // a message that is served later

  private:
    Link(EventLoop& loop, LinkOwner& owner, Descriptor socket);
    bool ReadOne(std::string& packet);
    void SendWaiting();
    void UpdateEvents();

    EventLoop& m_loop;
    LinkOwner& m_owner;
    const Descriptor m_socket;
    ucred m_peer{};
    std::deque<std::string> m_unsent;
    bool m_isHeld = false;
    bool m_hasEnded = false;
    unsigned m_events;
};

}  // namespace tqscm
