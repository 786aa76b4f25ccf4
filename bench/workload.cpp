// SPDX-License-Identifier: Apache-2.0
#include "bench/workload.h"

#include <map>

namespace bench {

Case CaseNamed(const std::string& name)
{
    static const std::map<std::string, Case> cases = {{"small", Case::kSmall}, {"bulk", Case::kBulk},
                                                      {"least", Case::kLeast}, {"usage", Case::kUsage},
                                                      {"token", Case::kToken}, {"none", Case::kNone}};
    return cases.at(name);
}

}  // namespace bench
