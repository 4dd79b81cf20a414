#include "preview/confinement.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/capability.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "preview/text_files.hpp"

namespace preview {

bool enter_view(const std::string& root, std::string* failed_step) {
    auto fail = [&](const char* step) {
        *failed_step = step;
        return false;
    };
    if (unshare(CLONE_NEWNS | CLONE_NEWCGROUP) != 0) return fail("unshare");
    if (chdir(root.c_str()) != 0) return fail("enter the view");
    // The old root lands on top of the new one, at "/", and goes at once.
    if (syscall(SYS_pivot_root, ".", ".") != 0) return fail("pivot_root");
    if (umount2(".", MNT_DETACH) != 0) return fail("detach the old root");
    return chdir("/") == 0 || fail("chdir /");
}

bool enter_child_user_namespace(int sock) {
    char byte = 'u';
    if (unshare(CLONE_NEWUSER) != 0 || write(sock, &byte, 1) != 1) return false;
    return read(sock, &byte, 1) == 1 && byte == 'm';
}

bool map_every_id(int sock, const std::string& proc, pid_t pid) {
    char byte = 0;
    if (read(sock, &byte, 1) != 1 || byte != 'u') return false;
    const std::string dir = proc + "/" + std::to_string(pid);
    const std::string every_id = "0 0 " + std::to_string(unmapped_id) + "\n";
    if (!write_to_kernel(dir + "/uid_map", every_id) || !write_to_kernel(dir + "/gid_map", every_id)) return false;
    byte = 'm';
    return write(sock, &byte, 1) == 1;
}

bool drop_privileges() {
    for (cap_value_t cap : {CAP_MKNOD, CAP_SYS_MODULE, CAP_SYS_BOOT, CAP_SYS_RAWIO, CAP_SYS_TIME}) {
        if (cap_drop_bound(cap) != 0) return false;
    }
    cap_t caps = cap_get_proc();
    if (!caps) return false;
    const bool cleared = cap_clear_flag(caps, CAP_INHERITABLE) == 0 && cap_set_proc(caps) == 0;
    cap_free(caps);
    const rlimit no_core{0, 0};
    return cleared && cap_reset_ambient() == 0 && setrlimit(RLIMIT_CORE, &no_core) == 0;
}

bool open_console(const std::string& pts, Console* console) {
    console->master = open((pts + "/ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    int number = -1, unlock = 0;
    if (console->master < 0 || ioctl(console->master, TIOCSPTLCK, &unlock) != 0 ||
        ioctl(console->master, TIOCGPTN, &number) != 0)
        return false;
    console->path = "/dev/pts/" + std::to_string(number);
    console->slave = open((pts + "/" + std::to_string(number)).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    // Lines as they are written, and no echo: the administrator's own
    // terminal already shows what is typed.
    termios t;
    if (console->slave < 0 || tcgetattr(console->slave, &t) != 0) return false;
    t.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    t.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    return tcsetattr(console->slave, TCSANOW, &t) == 0;
}

bool take_console(const std::string& path) {
    int tty = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (tty < 0 || ioctl(tty, TIOCSCTTY, 0) != 0) return false;
    for (int fd = 0; fd < 3; ++fd) {
        if (isatty(fd) && dup2(tty, fd) != fd) return false;
    }
    return true;
}

}  // namespace preview
