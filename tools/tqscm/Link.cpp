#include "Link.h"

#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <sys/epoll.h>

namespace tqscm {

using namespace Quellan::Platform;

Link::Link(EventLoop& loop, LinkOwner& owner, Descriptor socket, std::chrono::milliseconds limit)
    : m_loop(loop),
      m_owner(&owner),
      m_socket(std::move(socket)),
      m_limit(limit),
      m_full(loop),
      m_events(EPOLLIN) {
    socklen_t size = sizeof m_peer;
    getsockopt(m_socket.Get(), SOL_SOCKET, SO_PEERCRED, &m_peer, &size);
}

Link& Link::Watch(EventLoop& loop, LinkOwner& owner, Descriptor socket, std::chrono::milliseconds limit) {
    std::unique_ptr<Link> link(new Link(loop, owner, std::move(socket), limit));
    Link& watched = *link;
    loop.Watch(watched.m_socket.Get(), watched.m_events, std::move(link));
    return watched;
}

void Link::Close() {
    m_hasEnded = true;
    m_full.Cancel();
    m_loop.Forget(m_socket.Get(), *this);
}

void Link::Send(std::string packet) {
    m_unsent.push_back(std::move(packet));
    SendWaiting();
}

void Link::SendWaiting() {
    while (!m_unsent.empty() && !m_hasEnded) {
        const std::string& packet = m_unsent.front();
        const ssize_t sent = Retry(
            [&] { return send(m_socket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT); });
        if (sent < 0 && (errno == EAGAIN || errno == ENOBUFS)) break;
        // Where the other end has gone the loop says so.
        m_unsent.pop_front();
    }
    if (m_unsent.empty())
        m_full.Cancel();
    else if (!m_full.IsSet())
        m_full.Set(m_limit, [this] { m_owner->OnEnd(*this); });
    UpdateEvents();
}

void Link::Hold() {
    m_isHeld = true;
}

void Link::GoOn() {
    m_isHeld = m_isMuted = false;
    UpdateEvents();
}

void Link::UpdateEvents() {
    if (m_hasEnded) return;
    const bool isFull = !m_unsent.empty();
    const unsigned events =
        (isFull ? unsigned{EPOLLOUT} : 0u) | (isFull || m_isMuted ? 0u : unsigned{EPOLLIN});
    if (events != m_events) m_loop.Change(m_socket.Get(), m_events = events, *this);
}

bool Link::ReadOne(std::string& packet) {
    char buffer[MostServiceMessageBytes];
    const ssize_t size =
        Retry([&] { return recv(m_socket.Get(), buffer, sizeof buffer, MSG_TRUNC | MSG_DONTWAIT); });
    if (size < 0 && errno == EAGAIN) return false;
    m_hasEnded = size <= 0 || static_cast<std::size_t>(size) > sizeof buffer;
    if (!m_hasEnded) packet.assign(buffer, static_cast<std::size_t>(size));
    return !m_hasEnded;
}

void Link::ReadRest() {
    std::string packet;
    while (!m_hasEnded && ReadOne(packet))
        m_owner->OnMessage(*this, packet);
}

void Link::OnReady(unsigned events) {
    if (events & EPOLLOUT) SendWaiting();
    if ((events & EPOLLIN) && m_isHeld) {
        m_isMuted = true;
        UpdateEvents();
    }
    // One message: nobody keeps the others waiting, and most who have sent one wait for the answer.
    if (!m_isHeld && !m_hasEnded && m_unsent.empty()) {
        std::string packet;
        if (ReadOne(packet))
            m_owner->OnMessage(*this, packet);
        else if (m_hasEnded)
            return m_owner->OnEnd(*this);
    }
    const bool isGone = m_isHeld && (events & (EPOLLHUP | EPOLLERR));
    if (isGone && !m_hasEnded) m_owner->OnEnd(*this);
}

}  // namespace tqscm
