// Files, their names, and text files that records are appended to.
#include "TQLib/files/TQTextFile.h"
#include "platform/PlatformTest.h"
#include "support/ReadBytes.h"
#include "support/ThrownCode.h"

namespace Quellan::Corvel::Test {
namespace {

using Share = _TQFile::FileShare;
using Origin = _TQFile::Origin;

class File : public testing::Test {
  protected:
    template <class Opened = _TQFile>
    Opened Open(DWORD access = GENERIC_READ | GENERIC_WRITE, DWORD disposition = OPEN_ALWAYS) const {
        return Opened(m_name, access, disposition, 0, Share::Read | Share::Write | Share::Delete,
                      Sarvek::SecAttr());
    }
    void Move() const {
        EXPECT_TRUE(MoveFileExW(m_name.FullName().c_str(), (m_folder / L"moved").c_str(), 0));
    }

    const TemporaryFolder m_folder;
    const TQFileName m_name{TQString(m_folder.Path().c_str()), L"file"};
};

TEST(FileName, HasParts) {
    const TQString folder = TQFileName(L"folder/x").Path();
    const struct {
        const wchar_t *whole, *name, *extension;
    } rows[] = {{L"a.txt", L"a", L"txt"},
                {L"a.b.c", L"a.b", L"c"},
                {L".hidden", L".hidden", L""},
                {L".hidden.txt", L".hidden", L"txt"},
                {L"plain", L"plain", L""}};
    for (const auto& [whole, name, extension] : rows) {
        const TQFileName file(folder, whole);
        EXPECT_EQ(file.FullName(), folder + whole);
        EXPECT_EQ(file.Path(), folder);
        EXPECT_EQ(file.Name(), name);
        EXPECT_EQ(file.Extension(), extension);
        EXPECT_EQ(file.HasExtension(), *extension != L'\0');
        EXPECT_EQ(file.WithExtension(L"log").FullName(), folder + name + L".log");
        EXPECT_EQ(file.WithExtension(nullptr).FullName(), folder + name);
        EXPECT_EQ(file.WithName(L"other").Extension(), extension);
        EXPECT_EQ(file, TQFileName(file.FullName().ToUpper()));
    }
    EXPECT_LT(TQFileName(L"a"), TQFileName(L"B"));
    for (const wchar_t* none : {L"", static_cast<const wchar_t*>(nullptr)})
        EXPECT_EQ(ThrownCode([&] { TQFileName{none}; }), DWORD{ERROR_INVALID_NAME});
}

TEST_F(File, IsReadAndWrittenWhereItStandsOrAtAnOffset) {
    _TQFile file = Open();
    char bytes[10] = {};
    file.Write("abcdef", 6);
    EXPECT_EQ(file.Seek(-2, Origin::End), 4u);
    EXPECT_EQ(file.Read(bytes, 10), 2u);
    EXPECT_EQ(std::string(bytes, 2), "ef");
    file.WriteAt(1, "XY", 2);
    EXPECT_EQ(file.ReadAt(0, bytes, 10), 6u);
    EXPECT_EQ(std::string(bytes, 6), "aXYdef");
    EXPECT_EQ(file.ReadAt(6, bytes, 10), 0u);
    file.SetEnd(4);
    EXPECT_EQ(file.Size(), 4u);
    file.Seek(1, Origin::Begin);
    EXPECT_EQ(file.Seek(2, Origin::Current), 3u);
    file.SetEnd();
    EXPECT_EQ(file.Size(), 3u);
    EXPECT_EQ(ThrownCode([&] { file.Seek(-1, Origin::Begin); }), DWORD{ERROR_NEGATIVE_SEEK});
    EXPECT_EQ(ReadBytes(m_name.FullName().c_str()), "aXY");
}

TEST_F(File, ThrowsThePlatformsCode) {
    EXPECT_EQ(ThrownCode([&] { Open(GENERIC_READ, OPEN_EXISTING); }), DWORD{ERROR_FILE_NOT_FOUND});
    _TQFile writer = Open(), reader = Open(GENERIC_READ, OPEN_EXISTING);
    EXPECT_EQ(ThrownCode([&] { Open(GENERIC_READ, CREATE_NEW); }), DWORD{ERROR_FILE_EXISTS});
    EXPECT_EQ(ThrownCode([&] { reader.Write("x", 1); }), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(ThrownCode([&] { reader.WriteAt(0, "x", 1); }), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(ThrownCode([&] { writer.Write("x", std::size_t{1} << 32); }), DWORD{ERROR_BUFFER_OVERFLOW});
    reader.Close();
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_EQ(ThrownCode([&] { std::ignore = reader.Size(); }), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(File, IsFoundAtItsNameUntilItIsMoved) {
    _TQFile file = Open();
    file.Write("abc", 3);
    EXPECT_EQ(file.SizeAtItsName(), 3u);
    Move();
    EXPECT_EQ(file.SizeAtItsName(), std::nullopt);
    EXPECT_EQ(file.Size(), 3u);
    const _TQFile another = Open();
    EXPECT_EQ(file.SizeAtItsName(), std::nullopt) << "another one has its name";
}

TEST_F(File, IsLockedByOneAtATime) {
    _TQFile one = Open(), other = Open();
    constexpr ULONGLONG Far = 1ULL << 61;
    ASSERT_TRUE(one.Lock(Far, 5, 0));
    EXPECT_FALSE(other.Lock(Far + 4, 1, 0));
    EXPECT_TRUE(other.Lock(Far + 5, 1, 0));
    one.Unlock(Far, 5);
    EXPECT_TRUE(other.Lock(Far, 5, 0));
}

TEST_F(File, OfTextGetsLinesThatEndAsTheyShould) {
    const std::pair<const wchar_t*, const char*> rows[] = {{L"one", "one\r\n"},
                                                           {L"", "\r\n"},
                                                           {L"a\nb", "a\r\nb\r\n"},
                                                           {L"a\r\nb\r", "a\r\nb\r\r\n"},
                                                           {L"a\n", "a\r\n\r\n"}};
    std::string all = "torn";
    Open().Write(all.data(), all.size());
    all += "\r\n";
    auto text = Open<TQTextFile>();
    for (const auto& [record, bytes] : rows) {
        text.Append(record, 0);
        EXPECT_EQ(ReadBytes(m_name.FullName().c_str()), all += bytes);
    }
    Open().WriteAt(all.size(), "torn", 4);
    text.Append(L"whole", 0);
    EXPECT_EQ(ReadBytes(m_name.FullName().c_str()), all += "torn\r\nwhole\r\n") << "by another process";
    Move();
    EXPECT_EQ(ThrownCode([&] { text.Append(L"lost", 0); }), DWORD{ERROR_FILE_INVALID});
    EXPECT_EQ(ReadBytes(m_folder / L"moved"), all);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
