// A program built against the installed library, as an application would.
#include <zelisp.h>

#include <cstdio>

int main()
{
    std::puts(isp_get_sdk_version());
    return 0;
}
