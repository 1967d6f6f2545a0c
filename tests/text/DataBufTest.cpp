#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <gmock/gmock.h>
#include <memory>
#include <memory_resource>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace Quellan::Corvel {

namespace {

// The contents of every block that came back to a watched allocator, as they were then.
std::vector<std::string> g_released;

template <unsigned N>
constexpr TQAllocator Watched(bool wholePages) {
    return {
        .Allocate = [](std::size_t bytes) noexcept { return TQAllocatorFor<N>().Allocate(bytes); },
        .Release =
            [](void* block, std::size_t bytes) noexcept {
                g_released.emplace_back(static_cast<const char*>(block), bytes);
                TQAllocatorFor<N>().Release(block, bytes);
            },
        .wholePages = wholePages,
    };
}

constexpr TQAllocator g_watchedHeap = Watched<TQMemory::Heap>(false);
constexpr TQAllocator g_watchedPages = Watched<TQMemory::Pages>(true);
constexpr unsigned WatchedHeap = 1000;
constexpr unsigned WatchedPages = 1001;

}  // namespace

template <>
const TQAllocator& TQAllocatorFor<WatchedHeap>() noexcept {
    return g_watchedHeap;
}

template <>
const TQAllocator& TQAllocatorFor<WatchedPages>() noexcept {
    return g_watchedPages;
}

namespace {

using namespace std::string_view_literals;
using Test::FailAllocation;
using Test::FailCall;
using Test::ThrownCode;
using testing::Each;
using testing::ElementsAre;
using Level = _TQDataBufRoot::_SecureLevel;

constexpr std::string_view Secret = "the password";

template <unsigned N = TQMemory::Heap>
TQDataBuf<char, N> Buffer(std::string_view text, Level level = Level::Plain) {
    return {text.data(), text.size(), level};
}

template <unsigned N>
std::string_view Text(const TQDataBuf<char, N>& buffer) {
    return {buffer.begin(), buffer.end()};
}

TEST(DataBuf, GrowsWithZerosAndShrinksFromTheEnd) {
    TQDataBuf<int> numbers;
    numbers.Append(7);
    numbers.Resize(3);
    EXPECT_THAT(numbers, ElementsAre(7, 0, 0));
    EXPECT_EQ(numbers.Bytes(), 3 * sizeof(int));
    numbers[1] = 9;
    numbers.Resize(1);
    numbers.Resize(2);
    EXPECT_THAT(numbers, ElementsAre(7, 0));
    numbers.Fill(5);
    EXPECT_THAT(numbers, ElementsAre(5, 5));
}

TEST(DataBuf, EditsInPlaceAndWhileGrowing) {
    for (const ULONGLONG room : {0u, 100u}) {
        auto text = Buffer("abcdef");
        text.Reserve(room);
        text.Insert(2, "XY", 2);
        EXPECT_EQ(Text(text), "abXYcdef");
        text.Remove(1, 3);
        EXPECT_EQ(Text(text), "acdef");
        text.Insert(5, "!", 1);
        text.Append(Buffer("??"));
        EXPECT_EQ(Text(text), "acdef!??");
        text.Assign("no", 2);
        EXPECT_EQ(Text(text), "no");
    }
}

TEST(DataBuf, TakesItsOwnElementsAsTheSource) {
    for (const ULONGLONG room : {0u, 100u}) {
        auto text = Buffer("abcd");
        text.Reserve(room);
        text.Insert(1, text.Data() + 2, 2);
        EXPECT_EQ(Text(text), "acdbcd");
        text.Assign(text.Data() + 1, 4);
        EXPECT_EQ(Text(text), "cdbc");
        text.Append(text[1]);
        EXPECT_EQ(Text(text), "cdbcd");
    }
}

TEST(DataBuf, TakesRangesAndListsOfElements) {
    TQDataBuf<int> numbers = {1, 2};
    const std::vector<int> more = {3, 4};
    numbers.Append(more);
    numbers.Insert(1, std::span(numbers).first(1));
    EXPECT_THAT(numbers, ElementsAre(1, 1, 2, 3, 4));
    numbers.Assign(std::span(numbers).last(2));
    EXPECT_EQ(numbers, TQDataBuf<int>(more));
    TQDataBuf<int> wiped({9}, Level::Wipe);
    wiped = {7};
    EXPECT_EQ(wiped, TQDataBuf<int>({7}));
    EXPECT_EQ(wiped.SecureLevel(), Level::Wipe);
    EXPECT_EQ(std::unordered_set<TQDataBuf<int>>({numbers, TQDataBuf<int>(more), wiped}).size(), 2u);
}

// What it holds of each level is counted; nothing is left where it is destroyed.
struct CountedBytes : std::pmr::memory_resource {
    std::size_t bytes = 0;
    bool refuses = false;

    ~CountedBytes() override { EXPECT_EQ(bytes, 0u); }
    void* do_allocate(std::size_t size, std::size_t) override {
        if (refuses) throw 5;
        bytes += size;
        return ::operator new(size);
    }
    void do_deallocate(void* block, std::size_t size, std::size_t) override {
        bytes -= size;
        ::operator delete(block);
    }
    bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }
};

TEST(DataBufResource, ServesOnlyWhoWasMadeWithIt) {
    CountedBytes first, second;
    const Level levels[] = {Level::Plain, Level::Wipe, Level::WipeAndLock};
    for (const Level from : levels)
        for (const Level to : levels) {
            TQDataBuf<char> source(first, from), target(second, to);
            source.Append(Secret);
            EXPECT_EQ(first.bytes != 0, from != Level::WipeAndLock);
            target = source;
            EXPECT_EQ(second.bytes != 0, target.SecureLevel() != Level::WipeAndLock);
            const auto copy = source;
            EXPECT_EQ(first.bytes, copy.SecureLevel() == Level::WipeAndLock ? 0 : Secret.size());
            target = std::move(source);
            EXPECT_EQ(first.bytes, 0u);
            EXPECT_EQ(Text(target), Secret);
            EXPECT_EQ(second.bytes != 0, target.SecureLevel() != Level::WipeAndLock);
            target.Clear();
            EXPECT_EQ(second.bytes, 0u);
            source.Append(Secret);
            auto moved = std::move(source);
            moved.Swap(target);
            EXPECT_EQ(Text(target), Secret);
            EXPECT_EQ(first.bytes, from == Level::WipeAndLock ? 0 : Secret.size());
        }
}

TEST(DataBufResource, LeavesTheBufferUnchangedWhereItRefuses) {
    CountedBytes memory;
    TQDataBuf<char> buffer(memory);
    buffer.Append(Secret);
    memory.refuses = true;
    EXPECT_EQ(ThrownCode([&] { buffer.Resize(1000); }), ERROR_OUTOFMEMORY);
    EXPECT_EQ(ThrownCode([&] { buffer = Buffer(std::string(1000, 'x')); }), ERROR_OUTOFMEMORY);
    EXPECT_EQ(Text(buffer), Secret);
}

TEST(DataBuf, AppendsManyElementsWithFewBlocks) {
    FailAllocation count(0);
    TQDataBuf<int> numbers;
    for (int i = 0; i < 10000; ++i)
        numbers.Append(i);
    EXPECT_LT(count.Calls(), 40u);
    EXPECT_EQ(numbers[9999], 9999);
}

TEST(DataBuf, RefusesPositionsOutside) {
    auto text = Buffer("abc");
    EXPECT_EQ(text.At(2), 'c');
    EXPECT_EQ(ThrownCode([&] { text.At(3); }), ERROR_INVALID_INDEX);
    EXPECT_EQ(ThrownCode([&] { text.Insert(4, "x", 1); }), ERROR_INVALID_INDEX);
    EXPECT_EQ(ThrownCode([&] { text.Remove(1, 3); }), ERROR_INVALID_INDEX);
    EXPECT_EQ(ThrownCode([&] { text.Remove(2, ~0ull); }), ERROR_INVALID_INDEX);
    EXPECT_EQ(Text(text), "abc");
}

TEST(DataBuf, RefusesSizesBeyondAnyObjectAndNullSources) {
    auto numbers = TQDataBuf<int>(2);
    EXPECT_EQ(ThrownCode([&] { numbers.Resize(~0ull / sizeof(int)); }), ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(ThrownCode([&] { numbers.Reserve(1ull << 62); }), ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(ThrownCode([&] { numbers.Append(numbers.Data(), ~0ull / 2 / sizeof(int)); }),
              ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(ThrownCode([&] { numbers.Append(nullptr, 1); }), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ThrownCode([&] { numbers.Append(nullptr, 0); }), 0u);
    EXPECT_THAT(numbers, ElementsAre(0, 0));
}

TEST(DataBuf, ReportsMemoryRefusedByEachAllocator) {
    {
        FailCall fail("LocalAlloc", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(ThrownCode([] { DynBYTEBuf(10); }), ERROR_OUTOFMEMORY);
    }
    {
        FailCall fail("VirtualAlloc", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(ThrownCode([] { TQDataBuf<BYTE, TQMemory::Pages>(10); }), ERROR_OUTOFMEMORY);
    }
}

TEST(DataBuf, ComparesByElements) {
    EXPECT_EQ(Buffer("abc"), Buffer("abc", Level::Wipe));
    EXPECT_NE(Buffer("abc"), Buffer("abd"));
    EXPECT_LT(Buffer("ab"), Buffer("abc"));
    EXPECT_GT(BYTEBuf(reinterpret_cast<const BYTE*>("\xFF"), 1),
              BYTEBuf(reinterpret_cast<const BYTE*>("\x01z"), 2));
}

TEST(DataBuf, AssignmentGivesTheStricterLevel) {
    const Level levels[] = {Level::Plain, Level::Wipe, Level::WipeAndLock};
    for (const Level from : levels)
        for (const Level to : levels) {
            const auto source = Buffer("new", from);
            auto copied = Buffer("old", to);
            copied = source;
            EXPECT_EQ(copied.SecureLevel(), std::max(from, to));
            EXPECT_EQ(Text(copied), "new");
            auto moved = Buffer("old", to);
            auto giver = source;
            EXPECT_EQ(giver.SecureLevel(), from);
            moved = std::move(giver);
            EXPECT_EQ(moved.SecureLevel(), std::max(from, to));
            EXPECT_EQ(Text(moved), "new");
            EXPECT_TRUE(giver.IsEmpty());
            EXPECT_EQ(giver.SecureLevel(), from);
        }
}

// Every way in which a buffer gives memory back, on both kinds of memory.
template <class Memory>
class DataBufRelease : public testing::Test {
  protected:
    using Buf = TQDataBuf<char, Memory::value>;

    DataBufRelease() { g_released.clear(); }
    static Buf Make(Level level) { return Buffer<Memory::value>(Secret, level); }
    // The blocks given back since the last call.
    static std::vector<std::string> Released() { return std::exchange(g_released, {}); }
};

using WatchedMemory = testing::Types<std::integral_constant<unsigned, WatchedHeap>,
                                     std::integral_constant<unsigned, WatchedPages>>;
TYPED_TEST_SUITE(DataBufRelease, WatchedMemory);

constexpr auto HasSecret = [](const std::string& block) { return block.find(Secret) != block.npos; };
constexpr auto IsWiped = [](const std::string& block) { return block.find_first_not_of('\0') == block.npos; };

TYPED_TEST(DataBufRelease, LeavesTheContentsWithoutALevel) {
    this->Make(Level::Plain).Clear();
    EXPECT_THAT(this->Released(), ElementsAre(testing::Truly(HasSecret)));
}

TYPED_TEST(DataBufRelease, WipesAtEveryRelease) {
    const auto wipedBlock = ElementsAre(testing::Truly(IsWiped));
    { const auto destroyed = this->Make(Level::Wipe); }
    EXPECT_THAT(this->Released(), wipedBlock) << "destroyed";

    auto buffer = this->Make(Level::Wipe);
    buffer.Reserve(buffer.Capacity() + 1);
    EXPECT_THAT(this->Released(), wipedBlock) << "reserved";
    buffer.Resize(buffer.Capacity() + 1);
    EXPECT_THAT(this->Released(), wipedBlock) << "grown";
    buffer = this->Make(Level::Wipe);
    EXPECT_THAT(this->Released(), wipedBlock) << "assigned";
    buffer.Clear();
    EXPECT_THAT(this->Released(), wipedBlock) << "cleared";

    auto unprotected = this->Make(Level::Plain);
    unprotected = this->Make(Level::Wipe);
    this->Released();
    unprotected.Clear();
    EXPECT_THAT(this->Released(), wipedBlock) << "protected by assignment";
}

TYPED_TEST(DataBufRelease, WipesWhatShrinkingDropsInPlace) {
    auto buffer = this->Make(Level::Wipe);
    const std::string_view block(buffer.Data(), Secret.size());
    buffer.Remove(0, 4);
    EXPECT_EQ(block, "password\0\0\0\0"sv);
    buffer.Resize(4);
    EXPECT_EQ(block, "pass\0\0\0\0\0\0\0\0"sv);
    buffer.Assign("x", 1);
    EXPECT_EQ(block.substr(1), std::string(Secret.size() - 1, '\0'));
    EXPECT_THAT(this->Released(), testing::IsEmpty());
}

constexpr std::size_t KeyBytes = 32;

TQDataBuf<char> Key(char content) {
    return Buffer(std::string(KeyBytes, content), Level::WipeAndLock);
}

TEST(DataBufLock, KeepsManySecretsInFewLockedPages) {
    FailCall locks("VirtualLock", 0, 0);
    std::vector<TQDataBuf<char>> keys;
    for (int i = 0; i < 200; ++i)
        keys.push_back(Key(static_cast<char>(i)));
    EXPECT_LE(locks.Calls(), 2u);
    keys.erase(keys.begin(), keys.begin() + 150);
    for (int i = 0; i < 150; ++i)
        keys.push_back(Key(static_cast<char>(i)));
    EXPECT_LE(locks.Calls(), 2u) << "slots are used again";
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_THAT(keys[i], Each(static_cast<char>(i < 50 ? i + 150 : i - 50)));
}

TEST(DataBufLock, GivesMemoryToTheNextSecretWiped) {
    const auto neighbour = Key('n');
    auto key = std::make_unique<TQDataBuf<char>>(Key('k'));
    const char* const place = key->Data();
    key.reset();
    TQDataBuf<char> next(Level::WipeAndLock);
    next.Reserve(KeyBytes);
    ASSERT_EQ(next.Data(), place);
    EXPECT_EQ(std::string(place, KeyBytes), std::string(KeyBytes, '\0'));
}

TEST(DataBufLock, TakesMemoryForSecretsWhateverTheAllocator) {
    g_released.clear();
    { const auto buffer = Buffer<WatchedHeap>(Secret, Level::WipeAndLock); }
    { const auto buffer = Buffer<WatchedPages>(Secret, Level::WipeAndLock); }
    EXPECT_THAT(g_released, testing::IsEmpty());
}

TEST(DataBufLock, IsUnchangedWhereTheLockIsRefused) {
    auto buffer = Buffer(Secret, Level::WipeAndLock);
    for (const ULONGLONG size : {1000u, 100000u}) {
        FailCall fail("VirtualLock", ERROR_WORKING_SET_QUOTA, FailCall::EveryCall);
        EXPECT_EQ(ThrownCode([&] { buffer.Resize(size); }), DWORD{ERROR_WORKING_SET_QUOTA});
        EXPECT_EQ(Text(buffer), Secret);
    }
    for (const char* call : {"VirtualLock", "VirtualAlloc"}) {
        FailCall fail(call, ERROR_NOT_ENOUGH_MEMORY, FailCall::EveryCall);
        EXPECT_EQ(ThrownCode([&] { buffer.Resize(100000); }), ERROR_OUTOFMEMORY) << call;
    }
}

TEST(DataBufLock, GivesUpItsSparePageWhereNoOtherMayBeLocked) {
    { const auto emptied = Buffer(Secret, Level::WipeAndLock); }
    FailCall fail("VirtualLock", ERROR_WORKING_SET_QUOTA);
    EXPECT_EQ(ThrownCode([] { TQDataBuf<char>(5000, Level::WipeAndLock); }), 0u);
    EXPECT_TRUE(fail.Fired());
}

TEST(DataBufLock, ComparesSecretsToTheLastByte) {
    const auto secret = Buffer("0123456789abcdef", Level::WipeAndLock);
    for (std::size_t i = 0; i < secret.Size(); ++i) {
        auto other = secret;
        EXPECT_TRUE(secret.EqualsSecret(other) && secret == other);
        ++other[i];
        EXPECT_FALSE(secret.EqualsSecret(other) || secret == other) << i;
    }
    EXPECT_FALSE(secret.EqualsSecret(Buffer("0123456789abcde")));
}

TEST(DataBufLock, KeepsTheLastErrorWhenReleased) {
    SetLastError(1234);
    { const auto buffer = Buffer<TQMemory::Pages>(Secret, Level::WipeAndLock); }
    EXPECT_EQ(GetLastError(), 1234u);
}

}  // namespace

}  // namespace Quellan::Corvel
