#include "scenario_checks.hpp"

namespace realkernel {

void expect_facts(const GuestBoot& boot, const char* scenario, const std::vector<Fact>& table) {
    for (const auto& [name, expected] : table)
        EXPECT_EQ(boot.fact(scenario, name), expected) << "fact " << name << "; " << boot.where(scenario);
}

}  // namespace realkernel
