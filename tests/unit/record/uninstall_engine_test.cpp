#include "record/uninstall_engine.hpp"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.hpp"
#include "dkms/dkms_config.hpp"
#include "system/service_removal.hpp"

namespace fs = std::filesystem;

namespace {

const std::string installed_md5 = "d1357b6d77e6561ac5af85c36c77b46e";  // md5 of "installed\n"

class UninstallEngine : public LoggedTest {
protected:
    std::string since(size_t at) const { return log_text().substr(at); }
    const std::string base = dir / "quorl/";
};

TEST_F(UninstallEngine, AFileIsRemovedOnlyWhileItIsWhatWasInstalled) {
    const std::string file = dir / "f";
    struct Case {
        const char* what;
        std::function<void()> arrange;
        std::string md5;
        bool stays, changed;
        std::string log;
    } cases[] = {
        {"missing", [] {}, installed_md5, false, false, "Uninstall: " + file + " not exist. Skipping.\n"},
        // A digest that was empty at installation reads back as the path: never a match.
        {"recorded without digest", [&] { dir.write("f", "installed\n"); }, file, true, true, "Warning: Uninstall: md5sum of "},
        {"no digest now", [&] { dir.write("f", "installed\n"); md5_cache[file] = ""; }, installed_md5, true, false,
         "Warning: Uninstall: md5sum of " + file + " is empty. Skipping.\n"},
        {"the cached digest is taken as it stands", [&] { dir.write("f", "edited\n"); md5_cache[file] = installed_md5; },
         installed_md5, false, false, "Uninstall: " + file + " Succeed.\n"},
    };
    for (const Case& c : cases) {
        reset_run_state();
        fs::remove_all(file);
        c.arrange();
        const size_t before = log_text().size();
        EXPECT_EQ(remove_file_entry({"FILE", file, c.md5}), 0) << c.what;
        EXPECT_EQ(fs::exists(file), c.stays) << c.what;
        EXPECT_EQ(uninstall_state.changed_file_seen, c.changed) << c.what;
        EXPECT_TRUE(since(before).starts_with(c.log)) << c.what << "\n" << since(before);
    }
}

// Files shared with the toolkit wait while it is there, and the answer is
// asked once a process. A link that does not end in "/lib" never waits. (Which
// marker tells which package, and the removal once both are gone, are the
// removal rows' own.)
TEST_F(UninstallEngine, SharedEntriesWaitForTheToolkitAskedOnceAProcess) {
    const std::string rfile = dir.write("quorl/bin/qxsmi", "installed\n"), toolkit = dir.write("quorl/lib64/libcudart.so", ""),
                      later = dir.write("quorl/EULA.txt", "installed\n");
    fs::create_symlink("lib64", base + "/lib");
    fs::create_symlink("qxsmi", base + "bin/tool");
    EXPECT_EQ(remove_entries({{"QUORL", base, base}, {"SYMLINK", base + "bin/tool", ""}, {"RFILE", rfile, installed_md5},
                              {"SYMLINK", base + "/lib", ""}}), 0);
    EXPECT_FALSE(fs::is_symlink(base + "bin/tool"));
    EXPECT_TRUE(fs::exists(rfile) && fs::is_symlink(base + "/lib"));
    fs::remove(toolkit);  // the toolkit leaving later changes nothing for this process
    EXPECT_EQ(remove_entries({{"RLINK", base + "/lib", ""}, {"RFILE", later, installed_md5}}), 0);
    EXPECT_TRUE(fs::exists(later) && fs::is_symlink(base + "/lib"));
}

// Runs a removal as another user than root, for whom unlinking in a
// directory that is not his fails; its result's low byte is the exit status.
int as_nobody(const std::function<int()>& removal) {
    const pid_t child = fork();
    if (child == 0) {
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(99);
        _exit(removal() & 0xff);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(UninstallEngine, LinksAreRemovedAndNothingElse) {
    const std::string plain = dir.write("plain", "x");
    fs::create_symlink("nowhere", dir / "dangling");
    uninstall_state.installed_path = base;  // the RLINK's probe looks there, not at this machine
    EXPECT_EQ(remove_symlink_entry({"SYMLINK", plain, ""}), 0);
    EXPECT_EQ(remove_rlink_entry({"RLINK", plain, ""}), 0);
    EXPECT_TRUE(fs::exists(plain));
    EXPECT_EQ(remove_symlink_entry({"SYMLINK", dir / "dangling", ""}), 0);
    EXPECT_FALSE(fs::is_symlink(dir / "dangling"));
}

// A file or link that cannot be removed stops the walk, before the changed files are reported.
TEST_F(UninstallEngine, AWalkStopsAtAFailingHandlerWithoutReportingChangedFiles) {
    fs::permissions(dir.path(), fs::perms(0755));
    const std::string edited = dir.write("edited", "edited\n"), last = dir.write("last", "installed\n");
    const std::string file = dir.write("locked/file", "installed\n"), link = dir / "locked/link";
    fs::create_symlink("x", link);
    fs::permissions(dir / "locked", fs::perms(0555));
    uninstall_state.installed_path = base;
    struct Case {
        ManifestEntry failing;
        int result;
    } cases[] = {{{"FILE", file, installed_md5}, -115}, {{"RLINK", link, ""}, -112}, {{"SYMLINK", link, ""}, -113}};
    for (const Case& c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(as_nobody([&] {
                      return remove_entries({{"FILE", edited, installed_md5}, {"DIR", dir / "missing", ""}, c.failing,
                                             {"FILE", last, installed_md5}});
                  }),
                  c.result & 0xff) << c.failing.type;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.failing.type;
        EXPECT_TRUE(log_text().ends_with("Uninstall: " + c.failing.path + " Failed.\n")) << c.failing.type;
    }
    EXPECT_TRUE(fs::exists(file) && fs::is_symlink(link) && fs::exists(last) && fs::exists(edited));
    fs::permissions(dir / "locked", fs::perms(0755));
}

}  // namespace
