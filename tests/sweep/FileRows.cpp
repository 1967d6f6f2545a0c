#include "TQLib/files/TQFile.h"
#include "TQLib/files/TQFileName.h"
#include "TQLib/files/TQTextFile.h"
#include "TQLib/files/registry/TQRegKey.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/security/SecAttr.h"
#include "TQLib/text/STLString.h"
#include "platform/PlatformTest.h"
#include "sweep/Rows.h"

namespace Quellan::Corvel::Test {

namespace {

// A file in a folder of its own, which goes with it.
template <class File>
struct InFolder {
    static constexpr auto Share = _TQFile::FileShare::Read | _TQFile::FileShare::Write;
    TemporaryFolder folder;
    TQFileName name{TQString(folder.Path().c_str()), L"file"};
    File file{name, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, 0, Share, Sarvek::SecAttr()};

    static InFolder Make() { return InFolder(); }
};
using TextInFolder = InFolder<TQTextFile>;

struct FileInFolder : InFolder<_TQFile> {
    FileInFolder() { file.Write("abcdef", 6); }
    static FileInFolder Make() { return FileInFolder(); }
};

const wchar_t KeyPath[] = L"Software\\TQLib sweep";

// A key with one value, deleted with what is below it.
struct Key {
    TQRegKey user = TQRegistry::UserKey();
    TQRegKey key = user.Create(KeyPath);

    Key() { key.SetValue(L"value", REG_BINARY, "1234", 4); }
    ~Key() { user.DeleteKey(KeyPath); }
    static Key Make() { return Key(); }
};

TQFileName Name() {
    return TQFileName(L"folder/a file with a long enough name to be kept apart.text");
}

template <class Value>
void SetAndGet(Key& key, const typename Value::Data& data) {
    const Value value(key.key, L"typed");
    value.Set(data);
    EXPECT_EQ(value.Get(), data);
}

}  // namespace

std::vector<SweptOperation> FileRows() {
    return {
        Swept("file name", Name,
              [](TQFileName& name) {
                  TQFileName(name.WithName(L"other").WithExtension(L"log").ToUpper()).Description();
                  name.Name(), name.Path(), name.Extension();
              }),
        Swept("file name made", Name, [](TQFileName&) { TQFileName(L"relative"); }),
        Swept("file name drive", Name, "new GetVolumePathNameW",
              [](TQFileName& name) { (void)name.DriveType(); }),
        Swept("file open", FileInFolder::Make,
              [](FileInFolder& in) {
                  _TQFile(in.name, GENERIC_READ, OPEN_EXISTING, 0,
                          _TQFile::FileShare::Read | _TQFile::FileShare::Write, Sarvek::SecAttr())
                      .Size();
              }),
        Swept("file read", FileInFolder::Make,
              [](FileInFolder& in) {
                  char bytes[6];
                  in.file.Seek(0, _TQFile::Origin::Begin);
                  EXPECT_EQ(in.file.Read(bytes, 6), 6u);
              }),
        Swept("file write", FileInFolder::Make,
              [](FileInFolder& in) {
                  in.file.Seek(0, _TQFile::Origin::End);
                  in.file.Write("more", 4);
                  in.file.SetEnd();
                  in.file.Flush();
              }),
        Swept("file lock", FileInFolder::Make,
              [](FileInFolder& in) {
                  if (in.file.Lock(0, 1, 0)) in.file.Unlock(0, 1);
              }),
        Swept("text file append", TextInFolder::Make, "UnlockFile",
              [](TextInFolder& in) {
                  in.file.Append(L"one\ntwo", 0);
                  in.file.Append(L"three", 0);
              }),
        Swept("registry open", Key::Make,
              [](Key& in) {
                  in.user.Create(L"Software\\TQLib sweep\\below").SetValue(L"", REG_BINARY, nullptr, 0);
                  EXPECT_FALSE(in.key.Find(L"below").IsNull());
              }),
        Swept("registry names", Key::Make,
              [](Key& in) {
                  EXPECT_EQ(in.key.ValueNames().Count(), 1u);
                  in.key.KeyNames();
              }),
        Swept("registry delete", Key::Make,
              [](Key& in) {
                  in.key.Create(L"below\\further");
                  EXPECT_TRUE(in.key.DeleteKey(L"below"));
                  in.key.SetValue(L"gone", REG_BINARY, "1", 1);
                  EXPECT_TRUE(in.key.DeleteValue(L"gone"));
              }),
        Swept("registry flush", Key::Make, [](Key& in) { in.key.Flush(); }),
        Swept("registry machine", Key::Make,
              [](Key&) { TQRegistry::Connect(nullptr), TQRegistry::MachineKey(); }),
        Swept("registry number", Key::Make, [](Key& in) { SetAndGet<TQDWORDRegValue>(in, 7); }),
        Swept("registry text", Key::Make,
              [](Key& in) { SetAndGet<TQStringRegValue>(in, TQString(L"a text that is not short")); }),
        Swept("registry expanded text", Key::Make,
              [](Key& in) {
                  const TQExpandStringRegValue value(in.key, L"typed");
                  value.Set(TQString(L"%PATH% and more"));
                  EXPECT_NE(value.Get(), L"%PATH% and more");
              }),
        Swept("registry texts", Key::Make,
              [](Key& in) {
                  SetAndGet<TQMultiStringRegValue>(in, TQStringArray{TQString(L"a"), TQString(L"b")});
              }),
        Swept("registry bytes", Key::Make,
              [](Key& in) {
                  SetAndGet<TQBinaryRegValue>(in, BYTEBuf(reinterpret_cast<const BYTE*>("123"), 3));
              }),
    };
}

}  // namespace Quellan::Corvel::Test
