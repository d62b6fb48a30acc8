/*
 * layout_c.c - the public records as a C compiler lays them out: size and
 * alignment of each record, offset and size of each field, in the order of
 * record_fields.h, plus the size of the result enum.
 */
#include <zelisp.h>

#include <stdalign.h>
#include <stddef.h>

#define ZELISP_RECORD_SIZE(record) sizeof(record), alignof(record),
#define ZELISP_FIELD(record, member) offsetof(record, member), sizeof(((record *)0)->member),

const size_t zelisp_c_layout[] = {
#include "record_fields.h"
    sizeof(enum IspResult),
};
const size_t zelisp_c_layout_count = sizeof(zelisp_c_layout) / sizeof(zelisp_c_layout[0]);
