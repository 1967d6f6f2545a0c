#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQConsole.h"
#include "support/ChildProcess.h"
#include "support/ThrownCode.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace Quellan::Corvel::Test {
namespace {

// A terminal with a child in front of it that asks for a secret.
class AskedUser : public testing::Test {
  protected:
    void SetUp() override {
        if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals come late under the thread sanitizer";
        m_user = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_TRUE(m_user >= 0 && grantpt(m_user) == 0 && unlockpt(m_user) == 0);
        m_terminal = open(ptsname(m_user), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(m_terminal, 0);
    }
    ~AskedUser() override {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
        close(m_user);
        close(m_terminal);
    }

    // `prepare` runs in the child before it asks. The child's code is the answer's size, or 64 where asking
    // throws 1223, 65 where it throws anything else.
    template <class Prepare>
    void Ask(Prepare prepare) {
        m_child = fork();
        if (m_child == 0) {
            setsid();
            for (const int fd : {0, 1, 2})
                dup2(m_terminal, fd);
            ioctl(0, TIOCSCTTY, 0);
            prepare();
            std::size_t size = 0;
            const DWORD code =
                ThrownCode([&] { size = TQConsole(TQConsole::Stream::Error).ReadSecret(L"Word: ").Size(); });
            _exit(!code ? static_cast<int>(size) : code == ERROR_CANCELLED ? 64 : 65);
        }
        ReadTo("Word: ");
    }
    void Ask() {
        Ask([] {});
    }

    void Type(std::string_view keys) {
        ASSERT_EQ(write(m_user, keys.data(), keys.size()), ssize_t(keys.size()));
    }
    // All that the terminal shows, up to the end of `part`.
    void ReadTo(std::string_view part) {
        m_shown.clear();
        while (!m_shown.ends_with(part)) {
            char c = 0;
            pollfd ready{m_user, POLLIN, 0};
            ASSERT_EQ(poll(&ready, 1, 60000), 1) << m_shown;
            ASSERT_EQ(read(m_user, &c, 1), 1) << m_shown;
            m_shown += c;
        }
    }
    bool IsShowing() const {
        termios settings;
        return tcgetattr(m_terminal, &settings) == 0 && settings.c_lflag & ECHO;
    }
    // How the child ended.
    int Wait() {
        int status = 0;
        waitpid(std::exchange(m_child, 0), &status, 0);
        return status;
    }
    static bool HasEndedWith(int status, int code) {
        return WIFEXITED(status) && WEXITSTATUS(status) == code;
    }

    pid_t m_child = 0;
    std::string m_shown;

  private:
    int m_user = -1, m_terminal = -1;
};

TEST_F(AskedUser, TypesUnseen) {
    Ask();
    EXPECT_FALSE(IsShowing());
    Type("sesame\n");
    ReadTo("\n");
    EXPECT_EQ(m_shown, "\r\n");
    EXPECT_TRUE(HasEndedWith(Wait(), 6));
    EXPECT_TRUE(IsShowing());
}

TEST_F(AskedUser, SeesWhatIsTypedAgainWhenASignalEndsTheProcess) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        Ask();
        EXPECT_FALSE(IsShowing());
        kill(m_child, signal);
        const int status = Wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << signal;
        EXPECT_TRUE(IsShowing()) << signal;
    }
}

TEST_F(AskedUser, MayInterruptAProcessThatLivesOn) {
    Ask([] { ::signal(SIGINT, [](int) {}); });
    Type("half\x03");
    EXPECT_TRUE(HasEndedWith(Wait(), 64));
    EXPECT_TRUE(IsShowing());
}

TEST_F(AskedUser, IsAskedAgainAfterAStop) {
    Ask([] {
        const pid_t shell = getpid(), asking = fork();
        if (asking != 0) {
            int status = 0;
            waitpid(asking, &status, WUNTRACED);
            termios settings;
            if (!WIFSTOPPED(status) || tcgetattr(0, &settings) != 0 || !(settings.c_lflag & ECHO)) _exit(66);
            kill(asking, SIGCONT);
            waitpid(asking, &status, 0);
            _exit(WEXITSTATUS(status));
        }
        // Only what has its parent in another group of its session is stopped.
        setpgid(0, 0);
        ::signal(SIGTTOU, SIG_IGN);
        if (tcsetpgrp(0, getpid()) != 0 || getsid(0) != shell) _exit(67);
        ::signal(SIGTTOU, SIG_DFL);
    });
    Type("half\x1A");
    ReadTo("Word: ");
    EXPECT_FALSE(IsShowing());
    Type("sesame\n");
    EXPECT_TRUE(HasEndedWith(Wait(), 6));
    EXPECT_TRUE(IsShowing());
}

TEST_F(AskedUser, SeesWhatIsTypedAgainWhenAnotherThreadEndsTheProcess) {
    Ask([] {
        std::thread([] {
            // The terminal hides what is typed from some moment on.
            termios settings;
            while (tcgetattr(0, &settings) != 0 || settings.c_lflag & ECHO)
                std::this_thread::yield();
            std::exit(7);
        }).detach();
    });
    EXPECT_TRUE(HasEndedWith(Wait(), 7));
    EXPECT_TRUE(IsShowing());
}

}  // namespace
}  // namespace Quellan::Corvel::Test
