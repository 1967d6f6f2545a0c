#include "TQLib/threads/TQThreadPool.h"
#include "pool/Pools.h"

#include <cstring>
#include <stdexcept>

namespace Quellan::Corvel::Bench {

void Pool::PostFor(std::size_t, const Payload&) {
    throw std::logic_error("has no requestors");
}

namespace {

class Thread : public TQPoolThread {
  public:
    ~Thread() override { EndThread(); }

  protected:
    void OnWork(BYTEBuf& data) override {
        Payload item;
        std::memcpy(&item, data.Data(), sizeof item);
        item.run(item);
    }
};

template <DWORD N>
class Library : public Pool {
  public:
    explicit Library(std::size_t requestors) {
        for (std::size_t i = 0; i < requestors; ++i)
            m_requestors.push_back(m_pool.GetNewRequestorID());
    }
    void Post(const Payload& item) override { m_pool.AddWork(&item, sizeof item); }
    void PostFor(std::size_t requestor, const Payload& item) override {
        m_pool.AddWork(&item, sizeof item, m_requestors[requestor]);
    }

  private:
    TQThreadPool<Thread, TQThreadPoolExceptionHandler, N> m_pool;
    std::vector<DWORD> m_requestors;
};

}  // namespace

Contestant LibraryPool() {
    return {.name = "library",
            .isOrdered = true,
            .make = [](unsigned threads, std::size_t requestors) -> std::unique_ptr<Pool> {
                if (threads == 2) return std::make_unique<Library<2>>(requestors);
                if (threads == 16) return std::make_unique<Library<16>>(requestors);
                throw std::invalid_argument("2 or 16 threads");
            }};
}

}  // namespace Quellan::Corvel::Bench
