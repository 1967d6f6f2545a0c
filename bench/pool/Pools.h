// The pools that are measured beside each other, behind one interface.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Quellan::Corvel::Bench {

// What is posted, as a copy.
struct Payload {
    std::array<unsigned char, 56> bytes;
    void (*run)(const Payload&);
};
static_assert(sizeof(Payload) == 64);

class Pool {
  public:
    virtual ~Pool() = default;
    // Hands a copy of `item` to a thread of the pool, which calls `item.run`.
    virtual void Post(const Payload& item) = 0;
    // The same for one of the requestors: each one's items are taken in their order.
    virtual void PostFor(std::size_t requestor, const Payload& item);
    // Called on the posting thread when it has posted all.
    virtual void Finish() {}
};

struct Contestant {
    std::string name;
    bool isOrdered = false;    // has `PostFor`
    bool isOnePoster = false;  // is to be posted to by one thread
    unsigned onlyThreads = 0;  // the only number of threads that it can have; 0: any
    std::unique_ptr<Pool> (*make)(unsigned threads, std::size_t requestors);

    bool Can(unsigned threads, unsigned posters, std::size_t requestors) const {
        return (isOrdered || requestors == 0) && (!isOnePoster || posters == 1) &&
               (onlyThreads == 0 || onlyThreads == threads);
    }
};

// The library.
Contestant LibraryPool();
std::vector<Contestant> PeerPools();

}  // namespace Quellan::Corvel::Bench
