// Placeholder until configuration files land.
#include "sim_internal.h"

namespace zsim {
bool load_config(const std::string &, std::string *error)
{
    if (error)
        *error = "configuration files are not supported yet";
    return false;
}
} // namespace zsim
