#include "record/uninstall_engine.hpp"

#include <filesystem>
#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "dkms/dkms_config.hpp"
#include "record/run_state.hpp"
#include "system/service_removal.hpp"

namespace fs = std::filesystem;

namespace {

// md5 of "installed\n" and of "edited\n".
const std::string installed_md5 = "d1357b6d77e6561ac5af85c36c77b46e";

class UninstallEngineTest : public LoggedTest {
protected:
    bool contains(const std::string& text, const std::string& part) const {
        return text.find(part) != std::string::npos;
    }

    const std::string base = dir / "quorl/";
};

TEST_F(UninstallEngineTest, HandlersByTheWholeTypeWord) {
    struct Case {
        std::string type;
        RemovalHandler handler;
    } cases[] = {
        {"QUORL", remove_quorl_entry},   {"SYMLINK", remove_symlink_entry}, {"FILE", remove_file_entry},
        {"RFILE", remove_rfile_entry},   {"RLINK", remove_rlink_entry},     {"DIR", remove_dir_entry},
        {"SERVICE", uninstall_service_entry}, {"DKMS", uninstall_dkms_entry},
        {"file", nullptr},               {"FILE ", nullptr},                {"", nullptr},
        {"DIRS", nullptr},               {"QUORL\r", nullptr},
    };
    for (const Case& c : cases) EXPECT_EQ(removal_handler(c.type), c.handler) << "[" << c.type << "]";
}

TEST_F(UninstallEngineTest, FileIsRemovedOnlyWhileItIsWhatWasInstalled) {
    const std::string file = dir / "f";
    const std::string busy_dir = dir / "busy";
    struct Case {
        const char* what;
        std::function<void()> arrange;
        std::string path, md5;
        int result;
        bool stays, changed;
        std::string log;
    } cases[] = {
        {"missing", [] {}, file, installed_md5, 0, false, false, "Uninstall: " + file + " not exist. Skipping.\n"},
        {"unchanged", [&] { dir.write("f", "installed\n"); }, file, installed_md5, 0, false, false,
         "Uninstall: " + file + " Succeed.\n"},
        {"edited", [&] { dir.write("f", "edited\n"); }, file, installed_md5, 0, true, true,
         "Warning: Uninstall: md5sum of " + file + " has changed. Skipping. expected,actual:(" + installed_md5 +
             " 77ef9ba34caeecc3d333b20990b10ea5).\n"},
        // A digest that was empty at installation reads back as the path: never a match.
        {"recorded without digest", [&] { dir.write("f", "installed\n"); }, file, file, 0, true, true, ""},
        {"no digest now",
         [&] {
             dir.write("f", "installed\n");
             md5_cache[file] = "";
         },
         file, installed_md5, 0, true, false, "Warning: Uninstall: md5sum of " + file + " is empty. Skipping.\n"},
        {"cached digest taken as it stands",
         [&] {
             dir.write("f", "edited\n");
             md5_cache[file] = installed_md5;
         },
         file, installed_md5, 0, false, false, "Uninstall: " + file + " Succeed.\n"},
        {"cannot be removed",
         [&] {
             dir.write("busy/inside", "x");
             md5_cache[busy_dir] = installed_md5;
         },
         busy_dir, installed_md5, -115, true, false, "Uninstall: " + busy_dir + " Failed.\n"},
    };
    for (const Case& c : cases) {
        reset_run_state();
        fs::remove_all(file);
        c.arrange();
        const size_t log_before = log_text().size();
        EXPECT_EQ(remove_file_entry({"FILE", c.path, c.md5}), c.result) << c.what;
        EXPECT_EQ(fs::exists(c.path), c.stays) << c.what;
        EXPECT_EQ(uninstall_state.changed_file_seen, c.changed) << c.what;
        EXPECT_TRUE(contains(log_text().substr(log_before), c.log)) << c.what << "\n" << log_text().substr(log_before);
    }
}

TEST_F(UninstallEngineTest, ReservedEntriesWaitForBothPackagesToGo) {
    struct Case {
        const char* what;
        bool toolkit, driver;
        bool removed;
        std::string log;
    } cases[] = {
        {"neither package", false, false, true, "Succeed.\n"},
        {"toolkit present", true, false, false, "Uninstall: Toolkit not uninstalled. Skipping remove "},
        {"driver present", false, true, false, "Uninstall: Driver not uninstalled. Skipping remove "},
        {"both present", true, true, false, "Uninstall: Toolkit not uninstalled. Skipping remove "},
    };
    for (const Case& c : cases) {
        reset_run_state();
        fs::remove_all(base);
        const std::string rfile = dir.write("quorl/bin/qxsmi", "installed\n");
        const std::string rlink = base + "lib64/libcuda.so";
        const std::string lib_link = base + "/lib";
        const std::string other_link = base + "bin/tool";
        fs::create_directories(base + "lib64");
        fs::create_symlink("libcuda.so.1", rlink);
        fs::create_symlink("lib64", lib_link);
        fs::create_symlink("qxsmi", other_link);
        if (c.toolkit) dir.write("quorl/lib64/libcudart.so", "");
        if (c.driver) dir.write("quorl/bin/quorl-driver-uninstaller", "");

        const std::vector<ManifestEntry> entries = {
            {"QUORL", base, base},
            {"SYMLINK", other_link, other_link},
            {"RFILE", rfile, installed_md5},
            {"RLINK", rlink, rlink},
            {"SYMLINK", lib_link, lib_link},
        };
        const size_t log_before = log_text().size();
        EXPECT_EQ(remove_entries(entries), 0) << c.what;
        // A link that does not end in "/lib" never waits.
        EXPECT_FALSE(fs::is_symlink(other_link)) << c.what;
        EXPECT_EQ(!fs::exists(rfile), c.removed) << c.what;
        EXPECT_EQ(!fs::is_symlink(rlink), c.removed) << c.what;
        EXPECT_EQ(!fs::is_symlink(lib_link), c.removed) << c.what;
        const std::string log = log_text().substr(log_before);
        EXPECT_TRUE(contains(log, c.log + (c.removed ? "" : rfile + ".\n"))) << c.what << "\n" << log;
        EXPECT_TRUE(contains(log, "Debug: Installed path is " + base + ".\n")) << c.what;
    }
}

TEST_F(UninstallEngineTest, PresenceIsProbedOncePerProcess) {
    const std::string first = dir.write("quorl/EULA.txt", "installed\n");
    const std::string second = dir.write("quorl/copyright", "installed\n");
    EXPECT_EQ(remove_entries({{"QUORL", base, base}, {"RFILE", first, installed_md5}}), 0);
    EXPECT_FALSE(fs::exists(first));
    // The toolkit arriving later changes nothing for this process.
    dir.write("quorl/lib64/libcudart.so", "");
    EXPECT_EQ(remove_entries({{"RFILE", second, installed_md5}}), 0);
    EXPECT_FALSE(fs::exists(second));
}

TEST_F(UninstallEngineTest, MarkersLieUnderTheInstalledPathOrTheDefault) {
    EXPECT_EQ(package_marker_path("", "lib64/libcudart.so"), "/usr/local/quorl-3.2.1/lib64/libcudart.so");
    EXPECT_EQ(package_marker_path("/opt/quorl-3.2.1/", "bin/quorl-driver-uninstaller"),
              "/opt/quorl-3.2.1/bin/quorl-driver-uninstaller");
    EXPECT_EQ(package_marker_path("/opt/quorl-3.2.1", "lib64/libcudart.so"), "/opt/quorl-3.2.1/lib64/libcudart.so");
    dir.write("quorl/lib64/libcudart.so", "");
    EXPECT_TRUE(toolkit_installed(base));
    EXPECT_FALSE(driver_installed(base));
}

TEST_F(UninstallEngineTest, DirectoriesGoOnlyWhenEmptyAndNeverStopTheWalk) {
    dir.write("full/leftover", "x");
    fs::create_directories(dir / "empty");
    EXPECT_EQ(remove_dir_entry({"DIR", dir / "missing", dir / "missing"}), 0);
    EXPECT_EQ(remove_dir_entry({"DIR", dir / "full", dir / "full"}), 0);
    EXPECT_EQ(remove_dir_entry({"DIR", dir / "empty", dir / "empty"}), 0);
    EXPECT_TRUE(fs::exists(dir / "full/leftover"));
    EXPECT_FALSE(fs::exists(dir / "empty"));
    EXPECT_EQ(log_text(), "Debug: Uninstall: " + dir / "full" + " not empty skip.\nUninstall: " + dir / "empty" +
                              " Succeed.\n");
}

TEST_F(UninstallEngineTest, ACompleteWalkReportsChangedFilesAtTheEnd) {
    const std::string kept = dir.write("quorl/bin/edited.sh", "edited\n");
    const std::string gone = dir.write("quorl/bin/plain.sh", "installed\n");
    fs::create_symlink("plain.sh", base + "bin/link");
    const std::vector<ManifestEntry> entries = {
        {"QUORL", base, base},
        {"SYMLINK", base + "bin/link", base + "bin/link"},
        {"FILE", kept, installed_md5},
        {"FILE", gone, installed_md5},
        {"DIR", base + "bin", base + "bin"},
        {"DIR", base, base},
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(remove_entries(entries), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Found changed file during uninstall quorl, changed file will not be remove.\nCheck uninstall log "
              "please.\n");
    EXPECT_EQ(slurp(kept), "edited\n");
    EXPECT_FALSE(fs::exists(gone));
    EXPECT_FALSE(fs::is_symlink(base + "bin/link"));
    EXPECT_TRUE(fs::is_directory(base + "bin"));  // it still holds the edited file

    // The flag starts afresh with each walk.
    testing::internal::CaptureStderr();
    EXPECT_EQ(remove_entries({{"FILE", gone, installed_md5}}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(remove_entries({}), 0);
}

TEST_F(UninstallEngineTest, AStoppedWalkLeavesTheRestUntouched) {
    const std::string edited = dir.write("a/edited", "edited\n");
    const std::string first = dir.write("a/first", "installed\n");
    const std::string busy = dir.write("a/busy/inside", "x");
    const std::string last = dir.write("a/last", "installed\n");
    md5_cache[dir / "a/busy"] = installed_md5;
    const std::vector<ManifestEntry> stops = {
        {"FILE", edited, installed_md5},
        {"FILE", first, installed_md5},
        {"FILE", dir / "a/busy", installed_md5},
        {"FILE", last, installed_md5},
        {"DIR", dir / "a", dir / "a"},
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(remove_entries(stops), -115);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // no word about changed files after a stop
    EXPECT_FALSE(fs::exists(first));
    EXPECT_TRUE(fs::exists(last));

    // An entry without a handler, from a blank line of the record, stops the walk with 5.
    const std::vector<ManifestEntry> blank = {
        {"FILE", last, installed_md5},
        {"", "", ""},
        {"FILE", edited, installed_md5},
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(remove_entries(blank), 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Uninstall: type:'s handler is not found.\n");
    EXPECT_FALSE(fs::exists(last));
    EXPECT_TRUE(fs::exists(edited));
    testing::internal::CaptureStdout();
    EXPECT_EQ(remove_entries({{"PACKAGE", "x", "x"}}), 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Uninstall: type:PACKAGE's handler is not found.\n");
}

TEST_F(UninstallEngineTest, LinksAreRemovedAndNothingElse) {
    const std::string plain = dir.write("plain", "x");
    fs::create_symlink("nowhere", dir / "dangling");
    uninstall_state.installed_path = base;  // the RLINK's probe looks there, not at this machine
    EXPECT_EQ(remove_symlink_entry({"SYMLINK", plain, plain}), 0);
    EXPECT_EQ(remove_rlink_entry({"RLINK", plain, plain}), 0);
    EXPECT_EQ(remove_symlink_entry({"SYMLINK", dir / "missing", ""}), 0);
    EXPECT_TRUE(fs::exists(plain));
    EXPECT_EQ(remove_symlink_entry({"SYMLINK", dir / "dangling", ""}), 0);
    EXPECT_FALSE(fs::is_symlink(dir / "dangling"));
    EXPECT_EQ(log_text(), "Uninstall: " + dir / "dangling" + " Succeed.\n");
}

}  // namespace
