// The message compiler as a build runs it. Its paths come as macros: TQMC, WINDMC (empty where there is
// none), RESOURCES and MESSAGES, the library's message file and one with two languages.
#include "support/DataLines.h"
#include "support/ReadBytes.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A text of a table: | stands for the end of a line.
std::string WithBreaks(std::string text) {
    std::ranges::replace(text, '|', '\n');
    return text;
}

std::string WithCrLf(const std::string& text) {
    std::string result;
    for (const char c : text)
        result += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return result;
}

using Quellan::Corvel::Test::DataLines;
using Quellan::Corvel::Test::ReadBytes;

class Tqmc : public testing::Test {
  protected:
    void SetUp() override { fs::create_directories(m_folder); }
    void TearDown() override { fs::remove_all(m_folder); }

    fs::path File(const char* name) const { return m_folder / name; }

    fs::path Write(const char* name, const std::string& text) const {
        std::ofstream(File(name), std::ios::binary) << text;
        return File(name);
    }

    // The exit code; what was said on standard error is kept.
    int Run(const std::string& program, const std::string& arguments) {
        const std::string command = program + " " + arguments + " 2>" + File("said").string();
        const int status = std::system(command.c_str());
        m_said = ReadBytes(File("said"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int Compile(const std::string& arguments) { return Run(TQMC, arguments); }

    // The table of a text in English.
    std::string Table(const std::string& text) {
        const fs::path out = File("table.bin");
        EXPECT_EQ(Compile(Write("in.mc", text).string() + " --language English --table " + out.string()), 0)
            << m_said;
        return ReadBytes(out);
    }

    // What is said of a text that must be refused, behind the file's name.
    std::string Complaint(const std::string& text) {
        const std::string file = Write("in.mc", text).string();
        EXPECT_EQ(Compile(file + " --language English --header " + File("out.h").string()), 2) << text;
        EXPECT_FALSE(fs::exists(File("out.h")));
        return m_said.starts_with(file) ? m_said.substr(file.size()) : m_said;
    }

    std::string m_said;

  private:
    fs::path m_folder = fs::temp_directory_path() / ("tqmc_test_" + std::to_string(getpid()));
};

constexpr const char* Minimal = "MessageId=1\nSymbolicName=ONE\nLanguage=English\nFirst.\n.\n";

std::string Message(const std::string& text) {
    return "MessageId=1\n" + text;
}

}  // namespace

TEST_F(Tqmc, WritesTheSameTablesAsWindmc) {
    if (std::string(WINDMC).empty()) GTEST_SKIP() << "windmc is not installed";
    struct Case {
        std::string file, language, table;
    };
    for (const Case& each :
         {Case{RESOURCES, "English", "MSG00409.bin"}, Case{MESSAGES, "English", "MSG00409.bin"},
          Case{MESSAGES, "German", "MSG00407.bin"}}) {
        const std::string folder = File("").string();
        ASSERT_EQ(Run(WINDMC, "-C 65001 -h " + folder + " -r " + folder + " " + each.file), 0) << m_said;
        ASSERT_EQ(Compile(each.file + " --language " + each.language + " --table " + File("ours").string()),
                  0)
            << m_said;
        EXPECT_EQ(ReadBytes(File("ours")), ReadBytes(File(each.table.c_str())))
            << each.file << ", " << each.language;
        EXPECT_FALSE(ReadBytes(File("ours")).empty());
    }
}

TEST_F(Tqmc, TakesBothKindsOfLineEndsForTheSame) {
    EXPECT_EQ(Table(Minimal), Table(WithCrLf(Minimal)));
    EXPECT_NE(Table(Minimal).find(std::string("\r\0\n\0", 4)), std::string::npos);
}

TEST_F(Tqmc, NumbersMessagesBySeverityFacilityAndTheOneBefore) {
    const std::string text =
        "SeverityNames=(Bad=0x3:SEVERITY_BAD)\nFacilityNames=(Shop=0xFFF)\n"
        "MessageId=0x4001 Severity=Bad Facility=Shop SymbolicName=EVENT Language=English\nA.\n.\n"
        "MessageId=\nSymbolicName=NEXT\nLanguage=English\nB.\n.\n"
        "MessageId=+16\nSymbolicName=LATER\nLanguage=English\nC.\n.\n";
    ASSERT_EQ(
        Compile(Write("in.mc", text).string() + " --language English --header " + File("out.h").string()), 0)
        << m_said;
    const std::string header = ReadBytes(File("out.h"));
    for (const char* line :
         {"SEVERITY_BAD = 0x3;", "EVENT = 0xcfff4001;", "NEXT = 0x4002;", "LATER = 0x4012;"})
        EXPECT_NE(header.find(line), std::string::npos) << line;
}

TEST_F(Tqmc, SaysWhatIsWrongAndInWhichLine) {
    for (const std::string& line : DataLines("WrongMessages.txt")) {
        const std::size_t tab = line.find('\t');
        EXPECT_EQ(Complaint(WithBreaks(line.substr(tab + 1))), line.substr(0, tab) + '\n');
    }
    EXPECT_EQ(Complaint(Message("Language=English\n\xC3(\n.\n")), ":3: the text is not UTF-8\n");
    EXPECT_EQ(Complaint(Message("Language=English\n\xED\xA0\x80\n.\n")), ":3: the text is not UTF-8\n");
    EXPECT_EQ(Complaint(Message("Language=English\n" + std::string(40000, 'x') + "\n.\n")),
              ":4: the message's text is too long\n");
    EXPECT_EQ(Complaint(std::string(Minimal) + Minimal), ":10: the message's number is used twice\n");
}

TEST_F(Tqmc, RefusesCallsThatMakeNoSense) {
    const std::string file = Write("in.mc", Minimal).string();
    const std::string twice = " --language English --language English --table " + File("out.bin").string();
    const std::vector<std::string> calls = {"",
                                            file,
                                            file + " --language",
                                            "--language English",
                                            file + " --nonsense x --language English",
                                            file + twice};
    for (const std::string& arguments : calls) {
        EXPECT_EQ(Compile(arguments), 2) << arguments;
        EXPECT_TRUE(m_said.starts_with("usage:")) << arguments;
    }
    EXPECT_EQ(Compile(file + " --language German --table " + File("out.bin").string()), 2);
    EXPECT_NE(m_said.find("unknown language German"), std::string::npos);
    EXPECT_EQ(Compile(File("missing.mc").string() + " --language English"), 2);
    EXPECT_EQ(Compile(file + " --language English --table " + File("no/such/folder").string()), 2);
}
