#include "lab_host.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "preview/kernel_stand_in.hpp"
#include "preview/sandbox.hpp"
#include "preview/view.hpp"

#ifndef LAB_PACKAGE_DIR
#error "LAB_PACKAGE_DIR must name the assembled driver package"
#endif
#ifndef LAB_PREVIEW
#error "LAB_PREVIEW must name the quorl-driver-preview binary"
#endif

namespace fs = std::filesystem;
using preview::Components;

namespace lab {

namespace {

const std::string source_dir = LAB_SOURCE_DIR;
const std::string build_dir = LAB_BUILD_DIR;
const std::string hosts_dir = build_dir + "/lab-hosts";
const std::string cache_dir = build_dir + "/lab-cache";

constexpr const char* secure_boot_name = "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
constexpr const char* base_path = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

void fail(const std::string& message) {
    ADD_FAILURE() << "lab: " << message;
}

std::optional<std::string> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void spit(const std::string& path, const std::string& content, mode_t mode = 0644) {
    fs::create_directories(fs::path(path).parent_path());
    // Write in place: some of these files are bind-mounted by name elsewhere.
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        fail("cannot write " + path + ": " + std::strerror(errno));
        return;
    }
    if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        fail("short write to " + path);
    fchmod(fd, mode);
    close(fd);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Runs a helper program on this machine (never the installer), returning its
// exit status and putting its output in `output`.
int run_here(const std::vector<std::string>& argv, std::string* output) {
    std::string log = cache_dir + "/helper." + std::to_string(getpid()) + ".log";
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int null = open("/dev/null", O_RDONLY);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        if (null >= 0)
            dup2(null, 0);
        std::vector<char*> args;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (output)
        *output = slurp(log).value_or("");
    fs::remove(log);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Serialises the work on the shared cache between test processes.
class CacheLock {
public:
    CacheLock() {
        fs::create_directories(cache_dir);
        fd_ = open((cache_dir + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ >= 0)
            flock(fd_, LOCK_EX);
    }
    ~CacheLock() {
        if (fd_ >= 0)
            close(fd_);
    }

private:
    int fd_;
};

// Builds `dir` once with `make` (into a temporary name, renamed when done).
bool cached(const std::string& dir, const std::function<bool(const std::string&)>& make) {
    if (fs::exists(dir))
        return true;
    CacheLock lock;
    if (fs::exists(dir))
        return true;
    std::string tmp = dir + ".tmp" + std::to_string(getpid());
    fs::remove_all(tmp);
    fs::create_directories(tmp);
    if (!make(tmp)) {
        fs::remove_all(tmp);
        return false;
    }
    fs::rename(tmp, dir);
    return true;
}

std::string hash_of(const std::string& text) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%016zx", std::hash<std::string>{}(text));
    return buf;
}

// The key pair that dkms would otherwise generate at every build.
std::string mok_keys() {
    std::string dir = cache_dir + "/mok";
    cached(dir, [](const std::string& tmp) {
        std::string out;
        int status = run_here({"openssl", "req", "-new", "-x509", "-nodes", "-days", "36500", "-subj",
                               "/CN=DKMS module signing key/", "-newkey", "rsa:2048", "-keyout", tmp + "/mok.key",
                               "-outform", "DER", "-out", tmp + "/mok.pub"},
                              &out);
        if (status != 0)
            fail("openssl could not make the dkms key pair:\n" + out);
        return status == 0;
    });
    return dir;
}

void make_dirs_like_machine(const std::string& layer, const std::string& path) {
    // Layer directories take the machine's modes so that the merge looks
    // the same as the machine where they coincide.
    Components parts = preview::split(path);
    std::string host = layer, here = "";
    for (const auto& p : parts) {
        host = preview::join(host, p);
        here += "/" + p;
        struct stat st;
        if (lstat(host.c_str(), &st) == 0)
            continue;
        struct stat real;
        mode_t mode = lstat(here.c_str(), &real) == 0 && S_ISDIR(real.st_mode) ? real.st_mode & 07777 : 0755;
        mkdir(host.c_str(), mode);
        chmod(host.c_str(), mode);
    }
}

// Paths of this machine that no host may see: the kbuild scripts whose
// sign-file dkms would prefer over the host's kernel tree, and whatever an
// installer may have left here despite everything.
std::vector<std::string> machine_leftovers() {
    std::vector<std::string> paths;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/usr/lib", ec)) {
        if (e.path().filename().string().rfind("linux-kbuild-", 0) == 0)
            paths.push_back(e.path().string());
    }
    for (const char* leftover :
         {"/var/log/vantoriaquorl", "/usr/share/vantoria", "/etc/modules-load.d/vantoria.conf",
          "/etc/modprobe.d/vantoria.conf", "/usr/lib/systemd/system/vantoriaquorl-init@.service",
          "/usr/lib/firmware/vantoria"}) {
        if (fs::exists(fs::symlink_status(leftover, ec)))
            paths.push_back(leftover);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// The layer of stand-ins shared by every host of this build directory, and
// the parts of this machine that must not show in a host.
std::string tools_layer() {
    static std::string dir;
    if (!dir.empty())
        return dir;
    std::string stub = slurp(source_dir + "/stubs/stub.sh").value_or("");
    if (stub.empty())
        fail("missing " + source_dir + "/stubs/stub.sh");
    std::vector<std::string> leftovers = machine_leftovers();
    std::string signature = "systemctl stand-in\n" + stub + build_dir;
    for (const auto& p : leftovers)
        signature += "\n" + p;
    std::string name = cache_dir + "/tools-" + hash_of(signature);
    std::string keys = mok_keys();
    bool ok = cached(name, [&](const std::string& t) {
        make_dirs_like_machine(t, "/usr/lib/lab");
        spit(t + "/usr/lib/lab/stub", stub, 0755);
        make_dirs_like_machine(t, "/usr/bin");
        std::vector<std::string> stubs = {"journalctl", "dracut", "dmesg"};
        if (!fs::exists("/usr/bin/systemd-escape"))
            stubs.push_back("systemd-escape");
        for (const auto& s : stubs) {
            fs::create_symlink("/usr/lib/lab/stub", t + "/usr/bin/" + s);
            if (fs::exists("/usr/sbin/" + s)) {
                make_dirs_like_machine(t, "/usr/sbin");
                preview::make_whiteout(t + "/usr/sbin/" + s);
            }
        }
        // systemctl is the preview's own stand-in, bound over this place at
        // each run, so that both answer the installer alike.
        spit(t + "/usr/lib/lab/systemctl", "", 0755);
        fs::create_symlink("/usr/lib/lab/systemctl", t + "/usr/bin/systemctl");
        if (fs::exists("/usr/sbin/systemctl")) {
            make_dirs_like_machine(t, "/usr/sbin");
            preview::make_whiteout(t + "/usr/sbin/systemctl");
        }
        // What this machine has of kernels, module trees and drivers, its
        // administrator's home, and the build tree with the hosts themselves.
        for (const std::string& hidden :
             {std::string("/usr/lib/modules"), std::string("/usr/src"), std::string("/usr/local"),
              std::string("/var/lib/dkms"), std::string("/root"), build_dir}) {
            make_dirs_like_machine(t, hidden);
            preview::make_opaque(t + hidden);
        }
        for (const auto& p : leftovers) {
            make_dirs_like_machine(t, fs::path(p).parent_path().string());
            preview::make_whiteout(t + p);
        }
        fs::copy_file(keys + "/mok.key", t + "/var/lib/dkms/mok.key");
        fs::copy_file(keys + "/mok.pub", t + "/var/lib/dkms/mok.pub");
        return true;
    });
    if (ok)
        dir = name;
    return name;
}

std::string test_name() {
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    if (!info)
        return "lab-host";
    std::string name = std::string(info->test_suite_name()) + "." + info->name();
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Change& c) {
    return os << c.kind << ' ' << c.path;
}

struct Host::Impl {
    std::string dir;
    std::string release;
    bool kernel_set = false;
    std::string package_dir = default_package_dir;
    bool keep = false;
    bool reopened = false;
    int answers = 0;

    std::string fixture() const { return dir + "/fixture"; }

    // The host as the engine runs it: the fixture and the stand-ins over
    // this machine, the kernel's state in the scratch directory itself.
    preview::Sandbox sandbox() const {
        preview::Sandbox box;
        box.stage = dir + "/rt";
        box.layers = {fixture(), tools_layer()};
        box.content = preview::content_mounts();
        box.changes = dir + "/changes";
        box.state = dir;
        box.own_sys = true;
        box.run_seed = fixture() + "/run";
        box.tmp = dir + "/tmp";
        box.binds = {{LAB_PREVIEW, "/usr/lib/lab/systemctl"}};
        box.hostname = "lab";
        return box;
    }

    preview::View view() const { return preview::view_of(sandbox(), true); }

    // Where a new entry at `path` goes: the parent is resolved through the
    // host's symlinks (so /lib/x lands in usr/lib/x of the fixture, keeping
    // the merged-usr links intact), and its directories are made.
    std::string place(const std::string& path) {
        Components parts = preview::split(path);
        if (parts.empty()) {
            fail("cannot place the root directory");
            return fixture();
        }
        std::string name = parts.back();
        parts.pop_back();
        auto v = view();
        Components canon;
        for (size_t i = 0; i < parts.size(); ++i) {
            Components c;
            auto entry = preview::resolve(v, preview::to_path(canon) + "/" + parts[i], true, &c);
            if (entry && S_ISDIR(entry->st.st_mode)) {
                canon = c;
            } else {
                canon.insert(canon.end(), parts.begin() + static_cast<long>(i), parts.end());
                break;
            }
        }
        canon.push_back(name);
        // Paths served by the host's own directories are written there.
        const std::pair<Components, std::string> own[] = {
            {{"run", "quorl-preview"}, dir + "/run"}, {{"proc", "modules"}, dir + "/proc/modules"},
            {{"proc", "cmdline"}, dir + "/proc/cmdline"}, {{"proc", "version"}, dir + "/proc/version"},
            {{"run"}, fixture() + "/run"}, {{"tmp"}, dir + "/tmp"}, {{"sys"}, dir + "/sys"}};
        for (const auto& [prefix, host] : own) {
            if (canon.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), canon.begin())) {
                std::string p = host;
                for (size_t i = prefix.size(); i < canon.size(); ++i)
                    p = preview::join(p, canon[i]);
                fs::create_directories(fs::path(p).parent_path());
                return p;
            }
        }
        Components parent(canon.begin(), canon.end() - 1);
        std::string host = fixture();
        for (size_t i = 0; i < parent.size(); ++i) {
            host = preview::join(host, parent[i]);
            struct stat st;
            if (lstat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                continue;
            auto merged = preview::lookup(v, Components(parent.begin(), parent.begin() + static_cast<long>(i) + 1));
            mode_t mode = merged && S_ISDIR(merged->st.st_mode) ? merged->st.st_mode & 07777 : 0755;
            fs::remove(host);
            mkdir(host.c_str(), mode);
            chmod(host.c_str(), mode);
        }
        // A new description of the host wins over what earlier runs left.
        std::error_code ec;
        std::string written = preview::written_at(sandbox(), preview::to_path(canon));
        if (!written.empty())
            fs::remove_all(written, ec);
        return preview::join(host, name);
    }

    void set_module_result(const std::string& module, const std::string& what, int err) {
        std::string path = dir + "/kernel/answers/" + module;
        std::string kept;
        for (const auto& line : lines_of(slurp(path).value_or(""))) {
            if (line.rfind(what + "=", 0) != 0)
                kept += line + "\n";
        }
        if (err != 0)
            kept += what + "=" + std::to_string(err) + "\n";
        spit(path, kept);
    }

    // /sys/module follows /proc/modules, as it does on a real host, so that
    // kmod (which looks at /sys) and the installer (which reads /proc) agree.
    void sync_sys_modules() { preview::sync_sys_modules(slurp(dir + "/proc/modules").value_or(""), dir + "/sys/module"); }
};

Host::Host(std::string name) : impl_(new Impl) {
    static std::map<std::string, int> made;
    if (name.empty()) {
        name = test_name();
        int n = ++made[name];
        if (n > 1)
            name += "." + std::to_string(n);
    }
    impl_->dir = hosts_dir + "/" + name;
    impl_->release = default_release;
    std::error_code ec;
    fs::remove_all(impl_->dir, ec);
    const std::string& d = impl_->dir;
    for (const char* sub : {"fixture/run", "changes", "rt", "proc", "kernel/answers", "run/calls", "run/answers",
                            "sys/bus/pci/devices", "sys/bus/pci/drivers", "sys/devices/pci0000:00", "sys/module",
                            "sys/firmware", "sys/kernel", "sys/class"})
        fs::create_directories(d + "/" + sub);
    fs::create_directories(d + "/tmp");
    chmod((d + "/tmp").c_str(), 01777);
    spit(d + "/proc/modules", "");
    spit(d + "/proc/cmdline", "BOOT_IMAGE=/boot/vmlinuz root=/dev/vda1 ro quiet\n");
    spit(d + "/run/kmsg", "");
    spit(d + "/cgroup", "0::/user.slice/user-0.slice/session-1.scope\n");
    tools_layer();
}

Host::Host(Kept, std::string name) : impl_(new Impl) {
    impl_->dir = hosts_dir + "/" + name;
    const std::string release = slurp(impl_->dir + "/kernel/release").value_or("");
    impl_->release = release.empty() ? default_release : release.substr(0, release.find('\n'));
    impl_->kernel_set = !release.empty();
    impl_->keep = impl_->reopened = true;
    tools_layer();
}

Host::~Host() {
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    bool failed = info && testing::Test::HasFailure();
    if (impl_->reopened) {
        // Whoever made the host says where it lies.
    } else if (impl_->keep || failed) {
        std::cerr << "lab host kept: " << impl_->dir << "\n";
    } else {
        std::error_code ec;
        fs::remove_all(impl_->dir, ec);
    }
    delete impl_;
}

namespace {

// What depmod needs of a kernel's module directory before it accepts it.
void module_skeleton(Host& host, const std::string& release) {
    std::string m = "/usr/lib/modules/" + release;
    for (const char* f : {"modules.order", "modules.builtin", "modules.builtin.modinfo"}) {
        if (!host.exists(m + "/" + f))
            host.file(m + "/" + f, "");
    }
    // A distribution kernel's tree has drivers/misc, which the plain build copies into.
    if (!host.exists(m + "/kernel/drivers/misc"))
        host.directory(m + "/kernel/drivers/misc");
}

}  // namespace

Host& Host::kernel(std::string release) {
    impl_->release = release;
    impl_->kernel_set = true;
    spit(impl_->dir + "/kernel/release", release + "\n");
    spit(impl_->dir + "/proc/version",
         "Linux version " + release + " (lab@lab) (gcc, GNU ld) #1 SMP PREEMPT_DYNAMIC Debian (lab)\n");
    module_skeleton(*this, release);
    return *this;
}

Host& Host::kernel_tree(std::string release, std::vector<std::string> config) {
    std::string script = source_dir + "/kernel/make_kernel_tree.sh";
    if (!fs::exists(script)) {
        fail("no kernel tree generator at " + script);
        return *this;
    }
    std::string key = release;
    for (const auto& c : config)
        key += "\n" + c;
    std::string generator = slurp(script).value_or("");
    std::string tree = cache_dir + "/trees/" + hash_of(key + "\n" + generator);
    std::string output;
    bool ok = cached(tree, [&](const std::string& tmp) {
        std::vector<std::string> argv = {"bash", script, tmp + "/tree", release};
        argv.insert(argv.end(), config.begin(), config.end());
        int status = run_here(argv, &output);
        if (status != 0)
            fail("make_kernel_tree.sh " + release + " failed with " + std::to_string(status) + ":\n" + output);
        return status == 0;
    });
    if (!ok)
        return *this;
    std::string dest = impl_->place("/usr/src/linux-headers-" + release);
    std::error_code ec;
    fs::remove_all(dest, ec);
    std::string error;
    if (!preview::copy_tree(tree + "/tree", dest, &error))
        fail("copy the kernel tree: " + error);
    module_skeleton(*this, release);
    symlink("/usr/src/linux-headers-" + release, "/usr/lib/modules/" + release + "/build");
    return *this;
}

Host& Host::card(Card c) {
    std::string sys = impl_->dir + "/sys";
    std::string dev = sys + "/devices/pci0000:00/" + c.address;
    fs::create_directories(dev);
    char text[32];
    std::snprintf(text, sizeof text, "0x%04x\n", c.vendor);
    spit(dev + "/vendor", text);
    std::snprintf(text, sizeof text, "0x%04x\n", c.device);
    spit(dev + "/device", text);
    spit(dev + "/class", "0x030200\n");
    // The BAR is a sparse file large enough for the mapping, with the two
    // registers little-endian at their offsets.
    std::string bar = dev + "/resource2";
    int fd = open(bar.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, 1 << 20) != 0) {
        fail("cannot make " + bar);
    } else {
        auto put = [&](off_t at, uint32_t v) {
            unsigned char b[4] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
                                  static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
            if (pwrite(fd, b, 4, at) != 4)
                fail("cannot write a register of " + bar);
        };
        put(0x78A8, c.firmware);
        put(0x78C0, c.identity);
    }
    if (fd >= 0)
        close(fd);
    std::error_code ec;
    fs::remove(dev + "/driver", ec);
    if (!c.driver.empty()) {
        std::string drv = sys + "/bus/pci/drivers/" + c.driver;
        fs::create_directories(drv);
        fs::create_symlink("../../../bus/pci/drivers/" + c.driver, dev + "/driver");
        fs::remove(drv + "/" + c.address, ec);
        fs::create_symlink("../../../../devices/pci0000:00/" + c.address, drv + "/" + c.address);
    }
    std::string link = sys + "/bus/pci/devices/" + c.address;
    fs::remove(link, ec);
    fs::create_symlink("../../../devices/pci0000:00/" + c.address, link);
    return *this;
}

Host& Host::secure_boot(std::optional<std::string> bytes, bool efivars) {
    std::string efi = impl_->dir + "/sys/firmware/efi";
    std::string vars_file = efi + "/vars/" + secure_boot_name + "/data";
    std::string efivars_file = efi + "/efivars/" + secure_boot_name;
    std::error_code ec;
    fs::remove_all(efi + "/vars/" + secure_boot_name, ec);
    fs::remove(efivars_file, ec);
    if (bytes)
        spit(efivars ? efivars_file : vars_file, *bytes);
    return *this;
}

Host& Host::cmdline(std::string text) {
    spit(impl_->dir + "/proc/cmdline", text);
    return *this;
}

Host& Host::proc_modules(std::string text) {
    spit(impl_->dir + "/proc/modules", text);
    impl_->sync_sys_modules();
    return *this;
}

Host& Host::cgroup(std::optional<std::string> text) {
    std::string path = impl_->dir + "/cgroup";
    if (text) {
        spit(path, *text);
    } else {
        std::error_code ec;
        fs::remove(path, ec);
    }
    return *this;
}

Host& Host::file(std::string path, std::string content, mode_t mode) {
    std::string host = impl_->place(path);
    struct stat st;
    if (lstat(host.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        std::error_code ec;
        fs::remove_all(host, ec);
    }
    spit(host, content, mode);
    return *this;
}

Host& Host::directory(std::string path, mode_t mode) {
    std::string host = impl_->place(path);
    struct stat st;
    if (lstat(host.c_str(), &st) == 0 && !S_ISDIR(st.st_mode))
        fs::remove(host);
    mkdir(host.c_str(), mode);
    chmod(host.c_str(), mode);
    return *this;
}

Host& Host::symlink(std::string target, std::string path) {
    std::string host = impl_->place(path);
    std::error_code ec;
    fs::remove_all(host, ec);
    fs::create_symlink(target, host, ec);
    if (ec)
        fail("cannot link " + path + ": " + ec.message());
    return *this;
}

Host& Host::copy(std::string from, std::string path, mode_t mode) {
    std::string content = slurp(from).value_or("");
    if (!fs::exists(from))
        fail("no file " + from + " to copy into the host");
    return file(path, content, mode);
}

Host& Host::remove(std::string path) {
    preview::make_whiteout(impl_->place(path));
    return *this;
}

Host& Host::tool_missing(std::string name) {
    remove("/usr/bin/" + name);
    return remove("/usr/sbin/" + name);
}

Host& Host::stub(std::string name) {
    symlink("/usr/lib/lab/stub", "/usr/bin/" + name);
    return symlink("/usr/lib/lab/stub", "/usr/sbin/" + name);
}

Host& Host::tool_fails(std::string name, int status, std::string output) {
    stub(name);
    return answer(name, "*", status, output);
}

Host& Host::answer(std::string tool, std::string args, int status, std::string out, int times, std::string err) {
    // systemctl is the preview's stand-in until a test tells it what to answer.
    if (tool == "systemctl")
        stub(tool);
    char n[16];
    std::snprintf(n, sizeof n, "%04d", ++impl_->answers);
    std::string a = impl_->dir + "/run/answers/" + tool + "/" + n;
    spit(a + "/pattern", args);
    spit(a + "/status", std::to_string(status) + "\n");
    if (!out.empty())
        spit(a + "/stdout", out);
    if (!err.empty())
        spit(a + "/stderr", err);
    if (times > 0)
        spit(a + "/left", std::to_string(times) + "\n");
    return *this;
}

Host& Host::module_result(std::string module, int err) {
    impl_->set_module_result(module, "load", err);
    return *this;
}

Host& Host::unload_result(std::string module, int err) {
    impl_->set_module_result(module, "unload", err);
    return *this;
}

Host& Host::package(std::string dir) {
    // The package as the build assembled it: the sample payload with our
    // programs in it, the installer and the preview at its root.
    std::string from = LAB_PACKAGE_DIR;
    if (!fs::exists(from + "/.manifest")) {
        fail("no assembled package at " + from + "; build the driver_package target");
        return *this;
    }
    impl_->package_dir = dir;
    std::string host = impl_->place(dir);
    std::error_code ec;
    fs::remove_all(host, ec);
    std::string error;
    if (!preview::copy_tree(from, host, &error))
        fail("copy the package: " + error);
    return *this;
}

namespace {

// Lays an upper directory over a layer, the way the overlay shows the two.
void fold(const std::string& upper, const std::string& layer) {
    std::error_code listed;
    for (const auto& entry : fs::directory_iterator(upper, listed)) {
        const std::string name = entry.path().filename().string();
        std::string from = upper + "/" + name, to = layer + "/" + name;
        struct stat st, old;
        if (lstat(from.c_str(), &st) != 0)
            continue;
        bool merge = S_ISDIR(st.st_mode) && !preview::is_opaque(from) && lstat(to.c_str(), &old) == 0 &&
                     S_ISDIR(old.st_mode);
        std::error_code ec;
        std::string error;
        if (merge) {
            chmod(to.c_str(), st.st_mode & 07777);
            fold(from, to);
        } else if (preview::is_whiteout(st)) {
            preview::make_whiteout(to);
        } else {
            fs::remove_all(to, ec);
            if (!preview::copy_tree(from, to, &error))
                fail("settle the host: " + error);
        }
    }
}

}  // namespace

Host& Host::settle() {
    const auto box = impl_->sandbox();
    for (const auto& u : preview::uppers_of(box))
        fold(u.dir, impl_->fixture() + (u.at.empty() ? "" : preview::to_path(u.at)));
    std::error_code ec;
    fs::remove_all(box.changes, ec);
    fs::create_directories(box.changes);
    return *this;
}

Host& Host::keep(bool k) {
    impl_->keep = k;
    return *this;
}

RunResult Host::run(std::vector<std::string> argv, RunOptions options) {
    if (!impl_->kernel_set)
        kernel(impl_->release);
    impl_->sync_sys_modules();
    const std::string& d = impl_->dir;

    preview::Sandbox box = impl_->sandbox();
    box.answer_kernel = options.lab_kernel;
    box.argv = std::move(argv);
    box.cwd = options.cwd;
    box.uid = options.uid;
    box.gid = options.gid;
    box.network = options.network;
    box.timeout = options.timeout;
    if (fs::exists(d + "/cgroup"))
        box.cgroup = d + "/cgroup";

    const char* term = getenv("TERM");
    std::map<std::string, std::string> env = {
        {"PATH", base_path}, {"HOME", "/root"}, {"USER", "root"},      {"LOGNAME", "root"},
        {"SHELL", "/bin/bash"}, {"TERM", term ? term : "dumb"}};
    for (const auto& e : options.env) {
        size_t eq = e.find('=');
        env[e.substr(0, eq)] = eq == std::string::npos ? "" : e.substr(eq + 1);
    }
    for (const auto& [k, v] : env)
        box.env.push_back(k + "=" + v);

    std::vector<int> streams;
    if (options.capture) {
        spit(d + "/in", options.input);
        auto open_stream = [&](const std::string& path, int flags) {
            streams.push_back(open(path.c_str(), flags | O_CLOEXEC, 0644));
            return streams.back();
        };
        box.stdin_fd = open_stream(options.input.empty() ? "/dev/null" : d + "/in", O_RDONLY);
        box.stdout_fd = open_stream(d + "/out", O_WRONLY | O_CREAT | O_TRUNC);
        box.stderr_fd = open_stream(d + "/err", O_WRONLY | O_CREAT | O_TRUNC);
    }
    std::string error;
    RunResult r;
    r.status = preview::run_sandboxed(box, &error);
    for (int fd : streams) {
        if (fd >= 0)
            close(fd);
    }
    if (!error.empty())
        fail("the run in the simulated host failed: " + error);
    if (options.capture) {
        r.out = slurp(d + "/out").value_or("");
        r.err = slurp(d + "/err").value_or("");
    }
    return r;
}

RunResult Host::shell(std::string script, RunOptions options) {
    return run({"bash", "-c", script}, std::move(options));
}

RunResult Host::install(std::vector<std::string> args, RunOptions options) {
    options.cwd = impl_->package_dir;
    std::vector<std::string> argv = {"./quorl-driver-installer"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, std::move(options));
}

std::optional<std::string> Host::read(std::string path) const {
    auto e = preview::resolve(impl_->view(), path, true);
    if (!e || !S_ISREG(e->st.st_mode))
        return std::nullopt;
    return slurp(e->host);
}

bool Host::exists(std::string path) const {
    return preview::resolve(impl_->view(), path, true).has_value();
}

bool Host::is_symlink(std::string path) const {
    auto e = preview::resolve(impl_->view(), path, false);
    return e && S_ISLNK(e->st.st_mode);
}

std::optional<std::string> Host::link_target(std::string path) const {
    auto e = preview::resolve(impl_->view(), path, false);
    if (!e || !S_ISLNK(e->st.st_mode))
        return std::nullopt;
    std::error_code ec;
    return fs::read_symlink(e->host, ec).string();
}

mode_t Host::mode(std::string path) const {
    auto e = preview::resolve(impl_->view(), path, true);
    return e ? e->st.st_mode & 07777 : 0;
}

std::vector<std::string> Host::list(std::string dir) const {
    Components canon;
    auto e = preview::resolve(impl_->view(), dir, true, &canon);
    if (!e)
        return {};
    return preview::list(impl_->view(), canon);
}

std::vector<Change> Host::changes() const {
    std::vector<Change> out;
    for (const auto& d : preview::changes_of(impl_->sandbox()))
        out.push_back({d.kind, d.path});
    return out;
}

std::vector<std::string> Host::calls(std::string tool) const {
    return lines_of(slurp(impl_->dir + "/run/calls/" + tool).value_or(""));
}

std::string Host::kernel_log() const {
    return slurp(impl_->dir + "/run/kmsg").value_or("");
}

std::string Host::proc_modules() const {
    return slurp(impl_->dir + "/proc/modules").value_or("");
}

std::string Host::log() const {
    return read("/var/log/vantoriaquorl/driver_installer.log").value_or("");
}

std::string Host::record() const {
    return read("/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests").value_or("");
}

std::string Host::dir() const {
    return impl_->dir;
}

std::string Host::release() const {
    return impl_->release;
}

std::string Host::package_dir() const {
    return impl_->package_dir;
}

std::optional<std::string> Host::locate(std::string path) const {
    auto e = preview::resolve(impl_->view(), path, false);
    if (!e)
        return std::nullopt;
    return e->host;
}

bool lab_available(std::string* why) {
    static const std::string reason = preview::sandbox_obstacle();
    if (why)
        *why = reason;
    return reason.empty();
}

std::string machine_release() {
    struct utsname u;
    return ::uname(&u) == 0 ? u.release : "";
}

preview::ModuleJournal Host::module_events() const {
    return preview::read_module_journal(impl_->dir);
}

}  // namespace lab
