// library_messages.cpp - the library's message handler of the plugin.
#include "library_messages.h"

#include "zelisp.h"

GST_DEBUG_CATEGORY_STATIC(zelisp_library_debug);
#define GST_CAT_DEFAULT zelisp_library_debug

namespace gstzelisp {
namespace {

thread_local LibraryCalls *innermost = nullptr;

} // namespace

struct LineRouting {
    static void on_line(const zelvideo::_isp_message_t *message, void *)
    {
        LibraryCalls *calls = innermost;
        GstObject *owner = calls ? calls->owner_ : nullptr;
        const char *text = message->text ? message->text : "";
        if (message->kind == ISP_MESSAGE_PROGRESS) {
            GST_INFO_OBJECT(owner, "%s", text);
            return;
        }
        GST_WARNING_OBJECT(owner, "%s", text);
        if (!calls)
            return;
        calls->failures_.push_back(text);
        if (calls->warn_ && owner && GST_IS_ELEMENT(owner))
            GST_ELEMENT_WARNING(GST_ELEMENT(owner), LIBRARY, FAILED, ("%s", text),
                                ("a line of libzelisp%s%s", message->dev_path ? " about " : "",
                                 message->dev_path ? message->dev_path : ""));
    }
};

void route_library_messages()
{
    GST_DEBUG_CATEGORY_INIT(zelisp_library_debug, "zelisp", 0, "libzelisp's own lines");
    isp_set_message_handler(LineRouting::on_line, nullptr);
}

LibraryCalls::LibraryCalls(GstObject *owner, bool warn) : owner_(owner), warn_(warn), outer_(innermost)
{
    innermost = this;
}

LibraryCalls::~LibraryCalls() { innermost = outer_; }

LibraryCalls *LibraryCalls::current() { return innermost; }

std::string library_lines()
{
    std::string joined;
    if (LibraryCalls *calls = innermost)
        for (const std::string &line : calls->failures())
            joined += (joined.empty() ? "" : "; ") + line;
    return joined;
}

} // namespace gstzelisp
