#include "TQLib/platform/linux/process/CommandLine.h"

#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/process/Modules.h"

#include <cstring>
#include <new>
#include <span>
#include <string>
#include <vector>

namespace Quellan::Platform {

namespace {

// The first word is taken up to its closing quotation mark, without escapes; the others get quotation marks
// where they need them, and backslashes before a quotation mark are doubled.
void AppendQuoted(std::wstring& line, const std::wstring& word, bool isFirst) {
    if (!isFirst) line += L' ';
    if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        line += word;
        return;
    }
    line += L'"';
    std::size_t backslashes = 0;
    for (const wchar_t c : word) {
        if (c == L'"' && !isFirst) line.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        line += c;
    }
    if (!isFirst) line.append(backslashes, L'\\');
    line += L'"';
}

// As the dynamic loader hands them to the constructors of the modules that it loads.
constinit std::span<const char* const> g_arguments;

std::wstring QuotedArguments() {
    std::wstring line;
    for (const char* const& argument : g_arguments) {
        if (!argument) break;  // the program has taken some away
        AppendQuoted(line, NameToWide(argument), &argument == g_arguments.data());
    }
    return line;
}

std::vector<std::wstring> Split(const wchar_t* p) {
    std::vector<std::wstring> words(1);
    // The program's name knows no escapes.
    if (*p == L'"') {
        while (*++p && *p != L'"')
            words[0] += *p;
        if (*p) ++p;
    } else {
        while (*p > L' ')
            words[0] += *p++;
    }
    for (;;) {
        while (*p == L' ' || *p == L'\t')
            ++p;
        if (!*p) return words;
        std::wstring& word = words.emplace_back();
        for (bool isQuoted = false; *p && (isQuoted || (*p != L' ' && *p != L'\t'));) {
            std::size_t backslashes = 0;
            while (*p == L'\\')
                ++p, ++backslashes;
            if (*p != L'"') {
                word.append(backslashes, L'\\');
                if (backslashes == 0) word += *p++;
                continue;
            }
            word.append(backslashes / 2, L'\\');
            if (backslashes % 2 != 0) {
                word += L'"';
            } else if (isQuoted && p[1] == L'"') {
                // Two quotation marks inside a quoted part are one that is meant.
                word += L'"';
                ++p;
                isQuoted = false;
            } else {
                isQuoted = !isQuoted;
            }
            ++p;
        }
    }
}

// An array of pointers, then the texts they point to.
wchar_t** ToBlock(const std::vector<std::wstring>& words) {
    std::size_t size = (words.size() + 1) * sizeof(wchar_t*);
    for (const std::wstring& word : words)
        size += (word.size() + 1) * sizeof(wchar_t);
    auto* const pointers = static_cast<wchar_t**>(LocalAlloc(LMEM_FIXED, size));
    if (!pointers) return nullptr;
    auto* text = reinterpret_cast<wchar_t*>(pointers + words.size() + 1);
    for (std::size_t i = 0; i < words.size(); ++i) {
        pointers[i] = text;
        std::memcpy(text, words[i].c_str(), (words[i].size() + 1) * sizeof(wchar_t));
        text += words[i].size() + 1;
    }
    pointers[words.size()] = nullptr;
    return pointers;
}

}  // namespace

const wchar_t* GetCommandLineW() noexcept try {
    static const std::wstring& line = *new std::wstring(QuotedArguments());
    return line.c_str();
} catch (const std::bad_alloc&) {
    return Fail<const wchar_t*>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
}

namespace {

// While the library is loaded, because programs sort their arguments and take some of them away.
TQ_RUN_AT_LOAD void ReadArguments(int count, char** arguments, char**) noexcept {
    g_arguments = {arguments, static_cast<std::size_t>(count)};
    GetCommandLineW();
}

}  // namespace

wchar_t** CommandLineToArgvW(const wchar_t* commandLine, int* argumentCount) noexcept {
    if (DWORD code = FaultDue("CommandLineToArgvW")) return Fail<wchar_t**>(code, nullptr);
    if (!commandLine || !argumentCount) return Fail<wchar_t**>(ERROR_INVALID_PARAMETER, nullptr);
    try {
        std::vector<std::wstring> words;
        if (*commandLine) {
            words = Split(commandLine);
        } else {
            wchar_t path[4096];
            words.emplace_back(path, GetModuleFileNameW(nullptr, path, 4096));
        }
        wchar_t** const block = ToBlock(words);
        if (block) *argumentCount = static_cast<int>(words.size());
        return block;
    } catch (const std::bad_alloc&) {
        return Fail<wchar_t**>(ERROR_OUTOFMEMORY, nullptr);
    }
}

}  // namespace Quellan::Platform
