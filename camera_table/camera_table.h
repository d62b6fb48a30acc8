/*
 * camera_table.h - the platform's valid-camera table, as the programs built
 * on the library read it.
 */
#ifndef ZELISP_CAMERA_TABLE_H
#define ZELISP_CAMERA_TABLE_H

#include <vector>

// The cameras the platform lists in its valid-camera table (/dev/isp_misc),
// in the table's order. The table holds 12 records at most, whatever count
// the driver reports.
struct CameraTable {
    int result = 0;               // ISP_OK, or the code of the call that failed
    const char *failed_call = ""; // the library call that failed, for the message
    std::vector<int> cameras;

    bool was_read() const { return failed_call[0] == '\0'; }
    bool lists(int camera) const;
};

CameraTable read_camera_table();

#endif
