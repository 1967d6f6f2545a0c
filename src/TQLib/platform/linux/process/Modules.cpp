#include "TQLib/platform/linux/process/Modules.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/ErrorCodes.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/process/ModuleTables.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <fcntl.h>
#include <link.h>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Quellan::Platform {

namespace {

constexpr DWORD DataFileFlags =
    DONT_RESOLVE_DLL_REFERENCES | LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE;
constexpr DWORD SearchFlags =
    LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;
constexpr ULONG_PTR DataFileTag = 1;
constexpr ULONG_PTR ImageResourceTag = 2;

std::wstring_view BaseName(std::wstring_view path) {
    return path.substr(path.find_last_of(L'/') + 1);
}

std::string FolderOf(std::string_view path) {
    return std::string(path.substr(0, path.find_last_of('/') + 1));
}

bool SameText(std::wstring_view a, std::wstring_view b) {
    return CompareOrdinal(a, b, true) == 0;
}

// An image that the dynamic loader holds.
struct Image {
    HMODULE module;
    std::string path;  // as the loader knows it; empty for the executable
};

// Found while this library is loaded: later the file may have another name, /proc may be out of reach and the
// program's own word for it, which may be relative, may be worth nothing. Empty where nobody knows it.
constinit std::array<char, PATH_MAX> g_executablePath{};

TQ_RUN_AT_LOAD void FindExecutablePath() noexcept {
    const ssize_t size = readlink("/proc/self/exe", g_executablePath.data(), g_executablePath.size() - 1);
    if (size >= 0) return;
    const auto* const executed = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    if (!executed || !realpath(executed, g_executablePath.data())) g_executablePath[0] = '\0';
}

std::string ExecutablePath() {
    return g_executablePath.data();
}

HMODULE ModuleOf(const dl_phdr_info& info) noexcept {
    const std::span headers(info.dlpi_phdr, info.dlpi_phnum);
    const auto first = std::ranges::find(headers, ElfW(Word){PT_LOAD}, &ElfW(Phdr)::p_type);
    if (first == headers.end()) return nullptr;
    const ULONG_PTR page = static_cast<ULONG_PTR>(getpagesize());
    return reinterpret_cast<HMODULE>((info.dlpi_addr + first->p_vaddr) / page * page);
}

bool Holds(const dl_phdr_info& info, ULONG_PTR address) noexcept {
    return std::ranges::any_of(std::span(info.dlpi_phdr, info.dlpi_phnum), [&](const ElfW(Phdr) & header) {
        return header.p_type == PT_LOAD && address - (info.dlpi_addr + header.p_vaddr) < header.p_memsz;
    });
}

// Calls `visit` for each image, the executable first, until it returns true; no module comes or goes
// meanwhile. The kernel's page of code without a file is left out.
template <class Visitor>
bool VisitImages(Visitor visit) {
    struct State {
        Visitor& visit;
        bool executable = true;
        std::exception_ptr failure;
    } state{.visit = visit, .failure = nullptr};
    // No exception may pass through the loader's own frames.
    const auto step = [](dl_phdr_info* info, std::size_t, void* context) noexcept -> int {
        State& current = *static_cast<State*>(context);
        try {
            const bool executable = std::exchange(current.executable, false);
            const bool hasFile = executable || std::strchr(info->dlpi_name, '/') != nullptr;
            return hasFile && current.visit(*info);
        } catch (...) {
            current.failure = std::current_exception();
            return 1;
        }
    };
    const bool stopped = [&] {
        // The loader's lock for this stays locked in the child of a fork.
        const WithoutFork withoutFork;
        return dl_iterate_phdr(step, &state) != 0;
    }();
    if (state.failure) std::rethrow_exception(state.failure);
    return stopped;
}

std::vector<Image> AllImages() {
    std::vector<Image> images;
    VisitImages([&](const dl_phdr_info& info) {
        images.push_back({ModuleOf(info), images.empty() ? std::string() : std::string(info.dlpi_name)});
        return false;
    });
    return images;
}

std::optional<Image> FindImage(HMODULE module) {
    std::optional<Image> found;
    bool isExecutable = true;
    VisitImages([&](const dl_phdr_info& info) {
        const bool isFirst = std::exchange(isExecutable, false);
        const HMODULE own = ModuleOf(info);
        if (module ? own != module : !isFirst) return false;
        found = Image{own, isFirst ? std::string() : std::string(info.dlpi_name)};
        return true;
    });
    return found;
}

std::string FullPath(const Image& image) {
    if (image.path.empty()) return ExecutablePath();
    if (image.path.starts_with('/')) return image.path;
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(image.path.c_str(), nullptr),
                                                               &std::free);
    return resolved ? resolved.get() : image.path;
}

// A reference to an image that the dynamic loader counts.
class LoaderReference {
  public:
    LoaderReference() = default;
    explicit LoaderReference(const Image& image, int flags = 0) noexcept
        : m_handle(
              dlopen(image.path.empty() ? nullptr : image.path.c_str(), RTLD_LAZY | RTLD_NOLOAD | flags)) {}
    static LoaderReference Load(const char* name) noexcept {
        LoaderReference reference;
        reference.m_handle = dlopen(name, RTLD_NOW | RTLD_LOCAL);
        return reference;
    }
    LoaderReference(LoaderReference&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    LoaderReference& operator=(LoaderReference&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~LoaderReference() {
        if (m_handle) dlclose(m_handle);
    }

    explicit operator bool() const noexcept { return m_handle != nullptr; }
    void* Handle() const noexcept { return m_handle; }

  private:
    void* m_handle = nullptr;
};

class MappedFile {
  public:
    MappedFile(int descriptor, std::size_t size) noexcept
        : m_address(mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0)), m_size(size) {}
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile() {
        if (IsMapped()) munmap(m_address, m_size);
    }

    bool IsMapped() const noexcept { return m_address != MAP_FAILED; }
    ULONG_PTR Address() const noexcept { return reinterpret_cast<ULONG_PTR>(m_address); }
    std::span<const std::byte> Bytes() const noexcept {
        return {static_cast<const std::byte*>(m_address), m_size};
    }

  private:
    void* m_address;
    std::size_t m_size;
};

// What the calls of this file hold. The lock is never held while the dynamic loader runs, which may run a
// module's own start-up code.
struct Registry {
    PlainLock lock;
    std::multimap<HMODULE, LoaderReference> references TQ_GUARDED_BY(lock);
    std::map<HMODULE, std::shared_ptr<const MappedFile>> dataFiles TQ_GUARDED_BY(lock);
};

// Never destroyed: modules are freed in destructors that run at the very end.
Registry& TheRegistry() {
    alignas(Registry) static std::byte memory[sizeof(Registry)];
    static Registry& registry = *new (memory) Registry;
    return registry;
}

const ForkPart g_moduleForkPart(
    ForkOrder::Modules, []() TQ_ACQUIRES(TheRegistry().lock) noexcept { TheRegistry().lock.lock(); },
    [](bool) TQ_RELEASES(TheRegistry().lock) noexcept { TheRegistry().lock.unlock(); });

std::shared_ptr<const MappedFile> FindDataFile(HMODULE module) {
    Registry& registry = TheRegistry();
    const Guard guard(registry.lock);
    const auto found = registry.dataFiles.find(module);
    return found == registry.dataFiles.end() ? nullptr : found->second;
}

void Keep(HMODULE module, LoaderReference reference) {
    Registry& registry = TheRegistry();
    const Guard guard(registry.lock);
    registry.references.emplace(module, std::move(reference));
}

// The file names that a module's name stands for, best first.
std::vector<std::wstring> FileNames(std::wstring_view name) {
    const std::wstring folder(name.substr(0, name.find_last_of(L'/') + 1));
    std::wstring_view base = BaseName(name);
    const std::size_t dot = base.find_last_of(L'.');
    const bool bare = dot == std::wstring_view::npos;
    if (!bare && !SameText(base.substr(dot), L".dll")) return {std::wstring(name)};
    const std::wstring stem(base.substr(0, dot));
    const std::wstring extension = bare ? L".dll" : std::wstring(base.substr(dot));
    return {folder + stem + L".so", folder + L"lib" + stem + L".so", folder + stem + extension};
}

bool HasFolder(std::wstring_view name) {
    return name.find(L'/') != std::wstring_view::npos;
}

// Whether a loaded file goes by the name wanted: a version may follow, as in "libX.so.1.2".
bool GoesBy(std::wstring_view file, std::wstring_view wanted) {
    if (file.size() < wanted.size() || !SameText(file.substr(0, wanted.size()), wanted)) return false;
    const std::wstring_view rest = file.substr(wanted.size());
    return rest.empty() ||
           (rest[0] == L'.' && rest.find_first_not_of(L".0123456789") == std::wstring_view::npos);
}

std::optional<Image> FindImageByName(const wchar_t* name) {
    auto images = AllImages();
    if (!name) return images.front();
    for (const std::wstring& wanted : FileNames(name))
        for (Image& image : images) {
            const std::wstring path = NameToWide(FullPath(image));
            if (GoesBy(HasFolder(name) ? std::wstring_view(path) : BaseName(path), wanted))
                return std::move(image);
        }
    return std::nullopt;
}

std::optional<Image> FindImageByAddress(ULONG_PTR address) {
    HMODULE module = nullptr;
    if (!VisitImages([&](const dl_phdr_info& info) {
            if (!Holds(info, address)) return false;
            module = ModuleOf(info);
            return true;
        }))
        return std::nullopt;
    return FindImage(module);
}

// The folders searched for a name without one.
std::vector<std::string> SearchFolders(DWORD search) {
    std::vector<std::string> folders;
    if (search & (LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS))
        if (const std::string folder = FolderOf(ExecutablePath()); !folder.empty()) folders.push_back(folder);
    if (search & LOAD_LIBRARY_SEARCH_DEFAULT_DIRS)
        if (const auto self = FindImageByAddress(reinterpret_cast<ULONG_PTR>(&TheRegistry)))
            folders.push_back(FolderOf(FullPath(*self)));
    return folders;
}

struct OpenFile {
    Descriptor descriptor;
    std::size_t size = 0;
};

// Opens a regular file for reading; 2 when there is none.
DWORD Open(const char* path, OpenFile& file) noexcept {
    // A pipe of that name must not block the search.
    file.descriptor =
        Descriptor(Retry([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK); }));
    if (!file.descriptor) return errno == ENOTDIR ? ERROR_FILE_NOT_FOUND : CodeFromErrno(errno);
    struct stat status;
    if (fstat(file.descriptor.Get(), &status) < 0 || !S_ISREG(status.st_mode)) return ERROR_FILE_NOT_FOUND;
    file.size = static_cast<std::size_t>(status.st_size);
    return ERROR_SUCCESS;
}

// The first of the files that a name stands for, 2 when there is none of them.
DWORD FindFile(const wchar_t* name, DWORD search, std::string& path) {
    const std::vector<std::string> folders =
        HasFolder(name) ? std::vector<std::string>{std::string()} : SearchFolders(search);
    for (const std::string& folder : folders)
        for (const std::wstring& candidate : FileNames(name)) {
            std::string whole = folder + ToUtf8(candidate);
            OpenFile file;
            const DWORD code = Open(whole.c_str(), file);
            if (code == ERROR_FILE_NOT_FOUND) continue;
            path = std::move(whole);
            return code;
        }
    return ERROR_FILE_NOT_FOUND;
}

DWORD LoadDataFile(const std::string& path, DWORD flags, HMODULE& module) {
    OpenFile file;
    if (const DWORD code = Open(path.c_str(), file)) return code;
    if (file.size == 0) return ERROR_FILE_INVALID;
    const auto mapped = std::make_shared<const MappedFile>(file.descriptor.Get(), file.size);
    if (!mapped->IsMapped()) return ERROR_NOT_ENOUGH_MEMORY;
    const auto ignore = [](LANGID, std::span<const std::byte>) {};
    if (VisitModuleFile(mapped->Bytes(), ignore) == ERROR_BAD_EXE_FORMAT) return ERROR_BAD_EXE_FORMAT;
    const ULONG_PTR tag = flags & LOAD_LIBRARY_AS_IMAGE_RESOURCE ? ImageResourceTag
                          : flags & LOAD_LIBRARY_AS_DATAFILE     ? DataFileTag
                                                                 : 0;
    const HMODULE loaded = reinterpret_cast<HMODULE>(mapped->Address() | tag);
    Registry& registry = TheRegistry();
    const Guard guard(registry.lock);
    registry.dataFiles.emplace(loaded, mapped);
    module = loaded;
    return ERROR_SUCCESS;
}

// The loader says only in words why it failed; whether the file itself is at fault can be seen from the file.
DWORD LoadFailure(const char* path) {
    const char* const words = dlerror();
    OpenFile file;
    const DWORD code = Open(path, file);
    if (code && code != ERROR_FILE_NOT_FOUND) return code;
    if (!code) {
        if (file.size == 0) return ERROR_BAD_EXE_FORMAT;
        const MappedFile mapped(file.descriptor.Get(), file.size);
        if (!mapped.IsMapped()) return ERROR_NOT_ENOUGH_MEMORY;
        if (!IsLoadableModule(mapped.Bytes())) return ERROR_BAD_EXE_FORMAT;
    }
    return words && std::strstr(words, "undefined symbol") ? ERROR_PROC_NOT_FOUND : ERROR_MOD_NOT_FOUND;
}

DWORD LoadCode(const char* path, HMODULE& module) {
    LoaderReference reference = LoaderReference::Load(path);
    if (!reference) return LoadFailure(path);
    const link_map* map = nullptr;
    if (dlinfo(reference.Handle(), RTLD_DI_LINKMAP, &map) != 0) return ERROR_MOD_NOT_FOUND;
    const auto image = FindImageByAddress(reinterpret_cast<ULONG_PTR>(map->l_ld));
    if (!image) return ERROR_MOD_NOT_FOUND;
    Keep(image->module, std::move(reference));
    module = image->module;
    return ERROR_SUCCESS;
}

DWORD Load(const wchar_t* name, HANDLE file, DWORD flags, HMODULE& module) {
    if (!name || file || flags & ~(DataFileFlags | SearchFlags)) return ERROR_INVALID_PARAMETER;
    if (!*name) return ERROR_MOD_NOT_FOUND;
    const DWORD search = flags & SearchFlags ? flags & SearchFlags : LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;
    std::string path;
    const DWORD found = FindFile(name, search, path);
    if (flags & DataFileFlags) return found ? found : LoadDataFile(path, flags, module);
    if (!found) return LoadCode(path.c_str(), module);
    if (found != ERROR_FILE_NOT_FOUND) return found;
    const bool byLoader = search & (LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
    if (HasFolder(name) || !byLoader) return ERROR_MOD_NOT_FOUND;
    DWORD code = ERROR_MOD_NOT_FOUND;
    for (const std::wstring& candidate : FileNames(name)) {
        code = LoadCode(ToUtf8(candidate).c_str(), module);
        if (!code) break;
    }
    return code;
}

DWORD FreeLoaded(HMODULE module) {
    if (!module) return ERROR_INVALID_HANDLE;
    std::shared_ptr<const MappedFile> dataFile;
    LoaderReference reference;
    {
        Registry& registry = TheRegistry();
        const Guard guard(registry.lock);
        if (const auto data = registry.dataFiles.find(module); data != registry.dataFiles.end()) {
            dataFile = std::move(data->second);
            registry.dataFiles.erase(data);
            return ERROR_SUCCESS;
        }
        if (const auto code = registry.references.find(module); code != registry.references.end()) {
            reference = std::move(code->second);
            registry.references.erase(code);
            return ERROR_SUCCESS;
        }
    }
    return FindImage(module) ? ERROR_SUCCESS : ERROR_MOD_NOT_FOUND;
}

DWORD Find(DWORD flags, const wchar_t* name, HMODULE& module) {
    constexpr DWORD Known = GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT |
                            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
    constexpr DWORD PinUnchanged =
        GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (flags & ~Known || (flags & PinUnchanged) == PinUnchanged) return ERROR_INVALID_PARAMETER;
    const bool byAddress = name && flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
    const auto image =
        byAddress ? FindImageByAddress(reinterpret_cast<ULONG_PTR>(name)) : FindImageByName(name);
    if (!image) return ERROR_MOD_NOT_FOUND;
    if (!(flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT)) {
        const bool pin = (flags & GET_MODULE_HANDLE_EX_FLAG_PIN) != 0;
        LoaderReference reference(*image, pin ? RTLD_NODELETE : 0);
        if (!reference) return ERROR_MOD_NOT_FOUND;
        if (!pin) Keep(image->module, std::move(reference));
    }
    module = image->module;
    return ERROR_SUCCESS;
}

DWORD CopyPath(HMODULE module, wchar_t* buffer, DWORD size, DWORD& length) {
    const auto image = FindImage(module);
    if (!image) return ERROR_MOD_NOT_FOUND;
    if (!buffer || size == 0) return ERROR_INSUFFICIENT_BUFFER;
    const std::wstring path = NameToWide(FullPath(*image));
    if (path.empty()) return ERROR_PATH_NOT_FOUND;
    if (path.size() < size) {
        std::copy_n(path.c_str(), path.size() + 1, buffer);
        length = static_cast<DWORD>(path.size());
        return ERROR_SUCCESS;
    }
    std::copy_n(path.c_str(), size - 1, buffer);
    buffer[size - 1] = L'\0';
    length = size;
    return ERROR_INSUFFICIENT_BUFFER;
}

DWORD FindExport(HMODULE module, const char* name, void*& address) {
    const auto image = FindImage(module);
    if (!image) return ERROR_MOD_NOT_FOUND;
    constexpr ULONG_PTR HighestOrdinal = 0xFFFF;
    if (reinterpret_cast<ULONG_PTR>(name) <= HighestOrdinal) return ERROR_PROC_NOT_FOUND;
    const LoaderReference reference(*image);
    void* const found = reference ? dlsym(reference.Handle(), name) : nullptr;
    // The loader also searches the modules that this one needs, which is not what was asked for.
    const auto owner = found ? FindImageByAddress(reinterpret_cast<ULONG_PTR>(found)) : std::nullopt;
    if (!owner || owner->module != image->module) return ERROR_PROC_NOT_FOUND;
    address = found;
    return ERROR_SUCCESS;
}

DWORD List(HANDLE process, HMODULE* modules, DWORD size, DWORD* needed) {
    if (process != GetCurrentProcess()) return ERROR_INVALID_HANDLE;
    if (!needed || (!modules && size != 0)) return ERROR_NOACCESS;
    const auto images = AllImages();
    const std::size_t room = std::min(images.size(), size / sizeof(HMODULE));
    std::ranges::transform(std::span(images).first(room), modules, &Image::module);
    *needed = static_cast<DWORD>(images.size() * sizeof(HMODULE));
    return ERROR_SUCCESS;
}

DWORD CopyBaseName(HANDLE process, HMODULE module, wchar_t* buffer, DWORD size, DWORD& length) {
    if (process != GetCurrentProcess()) return ERROR_INVALID_HANDLE;
    const auto image = FindImage(module);
    if (!image) return ERROR_INVALID_HANDLE;
    if (!buffer || size == 0) return ERROR_INSUFFICIENT_BUFFER;
    const std::wstring path = NameToWide(FullPath(*image));
    if (path.empty()) return ERROR_PATH_NOT_FOUND;
    const std::wstring_view name = BaseName(path).substr(0, size);
    std::ranges::copy(name, buffer);
    if (name.size() < size) buffer[name.size()] = L'\0';
    length = static_cast<DWORD>(name.size());
    return ERROR_SUCCESS;
}

// Runs an inner function, which may lack memory.
template <class Inner>
DWORD Guarded(Inner inner) noexcept try {
    return inner();
} catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace

DWORD VisitModuleTables(HMODULE module, const MessageTableVisitor& visit, TableKind kind) {
    if (const auto dataFile = FindDataFile(module)) return VisitModuleFile(dataFile->Bytes(), visit, kind);
    const bool found = VisitImages([&](const dl_phdr_info& info) {
        if (module && ModuleOf(info) != module) return false;
        for (const ElfW(Phdr) & header : std::span(info.dlpi_phdr, info.dlpi_phnum))
            if (header.p_type == PT_NOTE)
                VisitNotes(
                    {reinterpret_cast<const std::byte*>(info.dlpi_addr + header.p_vaddr), header.p_memsz},
                    header.p_align == 8 ? 8 : 4, visit, kind);
        return true;
    });
    return found ? ERROR_SUCCESS : ERROR_RESOURCE_DATA_NOT_FOUND;
}

HMODULE LoadLibraryW(const wchar_t* name) noexcept {
    return LoadLibraryExW(name, nullptr, 0);
}

HMODULE LoadLibraryExW(const wchar_t* name, HANDLE file, DWORD flags) noexcept {
    if (const DWORD code = FaultDue("LoadLibraryExW")) return Fail(code, HMODULE{});
    HMODULE module = nullptr;
    const DWORD code = Guarded([&] { return Load(name, file, flags, module); });
    return code ? Fail(code, HMODULE{}) : module;
}

BOOL FreeLibrary(HMODULE module) noexcept {
    const DWORD code = Guarded([&] { return FreeLoaded(module); });
    return code ? Fail(code, FALSE) : TRUE;
}

HMODULE GetModuleHandleW(const wchar_t* name) noexcept {
    if (const DWORD code = FaultDue("GetModuleHandleW")) return Fail(code, HMODULE{});
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, name, &module);
    return module;
}

BOOL GetModuleHandleExW(DWORD flags, const wchar_t* name, HMODULE* module) noexcept {
    if (!module) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    *module = nullptr;
    if (const DWORD code = FaultDue("GetModuleHandleExW")) return Fail(code, FALSE);
    const DWORD code = Guarded([&] { return Find(flags, name, *module); });
    return code ? Fail(code, FALSE) : TRUE;
}

DWORD GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) noexcept {
    if (const DWORD code = FaultDue("GetModuleFileNameW")) return Fail(code, DWORD{0});
    DWORD length = 0;
    const DWORD code = Guarded([&] { return CopyPath(module, buffer, size, length); });
    return code ? Fail(code, length) : length;
}

FARPROC GetProcAddress(HMODULE module, const char* name) noexcept {
    if (const DWORD code = FaultDue("GetProcAddress")) return Fail(code, FARPROC{});
    void* address = nullptr;
    const DWORD code = Guarded([&] { return FindExport(module, name, address); });
    return code ? Fail(code, FARPROC{}) : reinterpret_cast<FARPROC>(address);
}

BOOL EnumProcessModules(HANDLE process, HMODULE* modules, DWORD size, DWORD* needed) noexcept {
    if (const DWORD code = FaultDue("EnumProcessModules")) return Fail(code, FALSE);
    const DWORD code = Guarded([&] { return List(process, modules, size, needed); });
    return code ? Fail(code, FALSE) : TRUE;
}

DWORD GetModuleBaseNameW(HANDLE process, HMODULE module, wchar_t* buffer, DWORD size) noexcept {
    if (const DWORD code = FaultDue("GetModuleBaseNameW")) return Fail(code, DWORD{0});
    DWORD length = 0;
    const DWORD code = Guarded([&] { return CopyBaseName(process, module, buffer, size, length); });
    return code ? Fail(code, DWORD{0}) : length;
}

}  // namespace Quellan::Platform
