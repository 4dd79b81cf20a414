#pragma once
// A GoogleTest suite whose tests all read one guest boot: the suite starts
// the boot once, each test asserts on what one scenario brought back, and
// the boot's files stay on disk when any of the tests failed.

#include <gtest/gtest.h>

#include <memory>

#include "guest_boot.hpp"

namespace realkernel {

template <class Suite>
class BootSuite : public ::testing::Test {
protected:
    static GuestBoot& boot() { return *boot_; }

    // Called from the suite's SetUpTestSuite with the boot it describes.
    static void start(GuestBoot boot) {
        boot_ = std::make_unique<GuestBoot>(std::move(boot));
        reached_end_ = boot_->run();
        failed_ = false;
    }

    static void TearDownTestSuite() {
        if (boot_)
            boot_->finish(failed_);
        boot_.reset();
    }

    void SetUp() override {
        ASSERT_TRUE(boot_) << "the suite started no boot";
        ASSERT_TRUE(reached_end_) << "the guest did not run all its scenarios:\n" << boot_->summary();
    }

    void TearDown() override { failed_ = failed_ || HasFailure(); }

private:
    static inline std::unique_ptr<GuestBoot> boot_;
    static inline bool reached_end_ = false;
    static inline bool failed_ = false;
};

}  // namespace realkernel
