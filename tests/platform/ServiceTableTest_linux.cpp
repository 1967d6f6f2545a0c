#include "../../tools/tqscm/ServiceTable.h"

#include <gmock/gmock.h>

namespace Quellan::Corvel::Test {
namespace {

using testing::SizeIs;
using tqscm::Service;

constexpr unsigned Many = 5'000;

std::string Name(unsigned number) {
    return "s" + std::to_string(number);
}

Service& Add(tqscm::ServiceTable& table, unsigned number, std::vector<std::string> dependencies) {
    tqscm::ServiceConfig config;
    config.start = SERVICE_DEMAND_START;
    config.dependencies = std::move(dependencies);
    return table.Add(Name(number), config);
}

// Each shape would take for ever, or all of the stack, where a service were looked at more than once.
TEST(ServiceDependencies, OfAnyShapeAreFollowedOnce) {
    struct Shape {
        const char* name;
        unsigned count;
        std::vector<std::string> (*dependencies)(unsigned number);
    };
    const Shape shapes[] = {
        {"chain", Many, [](unsigned number) { return std::vector{Name(number - 1)}; }},
        {"layers of two", 120,
         [](unsigned number) {
             const unsigned layer = number & ~1u;
             return layer < 2 ? std::vector{Name(0)} : std::vector{Name(layer - 2), Name(layer - 1)};
         }},
        {"all on all before", 150,
         [](unsigned number) {
             std::vector<std::string> all;
             for (unsigned i = 0; i < number; ++i)
                 all.push_back(Name(i));
             return all;
         }},
        {"one for all", Many, [](unsigned) { return std::vector{Name(0)}; }}};
    for (const Shape& shape : shapes) {
        SCOPED_TRACE(shape.name);
        tqscm::EventLoop loop;
        tqscm::ServiceTable table(loop);
        Service* last = &Add(table, 0, {});
        for (unsigned i = 1; i < shape.count; ++i)
            last = &Add(table, i, shape.dependencies(i));
        EXPECT_FALSE(table.IsCircle("S-NEW", {last->name}));
        EXPECT_TRUE(table.IsCircle("S0", {last->name}));
        std::vector<Service*> order;
        EXPECT_TRUE(table.StartOrder(*last, order));
        EXPECT_EQ(order.front()->name, Name(0));
        EXPECT_EQ(order.back(), last);
        EXPECT_GE(table.DependentsOf(*table.Find("S0")).size(), shape.count - 2);
        last->status.dwCurrentState = SERVICE_RUNNING;
        EXPECT_THAT(table.NeededNow(), SizeIs(order.size() - 1));
    }
}

TEST(ServiceDependencies, ThatAreCirclesAreSaid) {
    tqscm::EventLoop loop;
    tqscm::ServiceTable table(loop);
    Service& first = Add(table, 1, {Name(2)});
    Add(table, 2, {Name(3)});
    Service& last = Add(table, 3, {Name(1)});
    std::vector<Service*> order;
    EXPECT_FALSE(table.StartOrder(first, order));
    // What runs already need not be started.
    last.status.dwCurrentState = SERVICE_RUNNING;
    order.clear();
    EXPECT_TRUE(table.StartOrder(first, order));
    EXPECT_THAT(order, SizeIs(2));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
