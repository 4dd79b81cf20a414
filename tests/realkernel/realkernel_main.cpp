// The real-kernel tests need root, qemu, the Debian kernel with its headers
// and busybox-static. Where one of them is missing the whole program says why
// and exits 77, which ctest reports as a skip, before any boot is tried.
#include <gtest/gtest.h>

#include <iostream>

#include "guest_boot.hpp"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    std::string why;
    int status = realkernel::check_guests(&why);
    if (status != 0) {
        std::cout << why << std::flush;
        return status == 77 ? 77 : 1;
    }
    return RUN_ALL_TESTS();
}
