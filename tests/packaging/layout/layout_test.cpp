/*
 * layout_test.cpp - a C program and a C++ program share every record with
 * the library, so the two compilers must agree on each size, alignment and
 * field offset. The C side is measured in layout_c.c; a mismatch names the
 * record and field.
 */
#include <zelisp.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

extern "C" const size_t zelisp_c_layout[];
extern "C" const size_t zelisp_c_layout_count;

namespace {

struct Measure {
    std::string what;
    size_t value;
};

using namespace zelvideo;

#define ZELISP_RECORD_SIZE(record) {#record " size", sizeof(record)}, {#record " alignment", alignof(record)},
#define ZELISP_FIELD(record, member)                                                                            \
    {#record "." #member " offset", offsetof(record, member)},                                                  \
        {#record "." #member " size", sizeof(static_cast<record *>(nullptr)->member)},

const std::vector<Measure> cxx_layout = {
#include "record_fields.h"
    {"enum IspResult size", sizeof(IspResult)},
};

} // namespace

int main()
{
    if (zelisp_c_layout_count != cxx_layout.size()) {
        std::printf("C measured %zu values, C++ %zu\n", zelisp_c_layout_count, cxx_layout.size());
        return 1;
    }
    int mismatches = 0;
    for (size_t i = 0; i < cxx_layout.size(); ++i) {
        if (zelisp_c_layout[i] != cxx_layout[i].value) {
            std::printf("%s: C %zu, C++ %zu\n", cxx_layout[i].what.c_str(), zelisp_c_layout[i],
                        cxx_layout[i].value);
            ++mismatches;
        }
    }
    std::printf("%zu layout values compared, %d differ\n", cxx_layout.size(), mismatches);
    return mismatches == 0 ? 0 : 1;
}
