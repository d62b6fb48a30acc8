// caps_negotiation.cpp - a view's caps offer and the choice downstream makes.
#include "caps_negotiation.h"

#include <algorithm>
#include <numeric>

#include "formats.h"

namespace gstzelisp {
namespace {

std::string caps_text(const GstCaps *caps)
{
    gchar *text = gst_caps_to_string(caps);
    std::string result = text;
    g_free(text);
    return result;
}

std::string colorimetry_for(const ViewOffer &offer, uint32_t fourcc)
{
    if (!offer.colorimetry.empty())
        return offer.colorimetry;
    return colorimetry_text(view_colorimetry(offer.driver_colorimetry, fourcc));
}

void set_rate(GstStructure *structure, const ViewOffer &offer)
{
    if (offer.rate_by_decimation && offer.fps_n > 0) {
        // From one frame in kMostDecimation up to every frame.
        int64_t slowest_d = int64_t(offer.fps_d) * kMostDecimation;
        int divisor = int(std::gcd(int64_t(offer.fps_n), slowest_d));
        gst_structure_set(structure, "framerate", GST_TYPE_FRACTION_RANGE, offer.fps_n / divisor,
                          int(slowest_d / divisor), offer.fps_n, offer.fps_d, nullptr);
    } else {
        gst_structure_set(structure, "framerate", GST_TYPE_FRACTION, offer.rate_n, offer.rate_d, nullptr);
    }
}

void set_size_range(GstStructure *structure, const char *field, uint32_t least, uint32_t most, uint32_t step)
{
    GValue range = G_VALUE_INIT;
    g_value_init(&range, GST_TYPE_INT_RANGE);
    gst_value_set_int_range_step(&range, int(least), int(most), int(step));
    gst_structure_take_value(structure, field, &range);
}

// The view's rate fixed, and the structure fixated to the driver's own
// format, size and rate where downstream leaves a choice.
GstCaps *fixate_towards(const GstCaps *both, const ViewOffer &offer, int rate_n, int rate_d)
{
    GstCaps *caps = gst_caps_copy_nth(both, 0);
    GstStructure *structure = gst_caps_get_structure(caps, 0);
    gst_structure_fixate_field_string(structure, "format",
                                      gst_video_format_to_string(video_format(offer.current.format)));
    gst_structure_fixate_field_nearest_int(structure, "width", int(offer.current.width));
    gst_structure_fixate_field_nearest_int(structure, "height", int(offer.current.height));
    gst_structure_fixate_field_nearest_fraction(structure, "framerate", rate_n, rate_d);
    return gst_caps_fixate(caps);
}

// The first whole-number division of the sensor's rate that the first
// structure of `both` allows, fastest first; 0 when none does.
int allowed_decimation(const GstCaps *both, const ViewOffer &offer)
{
    GstCaps *first = gst_caps_copy_nth(both, 0);
    int found = 0;
    for (int n = 1; n <= kMostDecimation && !found; ++n) {
        GstCaps *rate = gst_caps_new_simple("video/x-raw", "framerate", GST_TYPE_FRACTION, offer.fps_n,
                                            offer.fps_d * n, nullptr);
        gst_caps_set_features(rate, 0, gst_caps_features_copy(gst_caps_get_features(first, 0)));
        if (gst_caps_can_intersect(first, rate))
            found = n;
        gst_caps_unref(rate);
    }
    gst_caps_unref(first);
    return found;
}

std::string rate_text(int n, int d) { return std::to_string(n) + "/" + std::to_string(d); }

std::string refusal(GstCaps *offer, GstCaps *peer, const ViewOffer &offer_facts, const std::string &label)
{
    // Downstream may take the formats at another rate only.
    GstCaps *any_rate = gst_caps_copy(offer);
    for (guint i = 0; i < gst_caps_get_size(any_rate); ++i)
        gst_structure_remove_field(gst_caps_get_structure(any_rate, i), "framerate");
    bool rate_only = gst_caps_can_intersect(any_rate, peer);
    gst_caps_unref(any_rate);
    if (rate_only && offer_facts.fps_n > 0) {
        if (offer_facts.rate_by_decimation)
            return label + ": downstream asks for a frame rate the camera cannot deliver: it runs at " +
                   rate_text(offer_facts.fps_n, offer_facts.fps_d) +
                   " frames a second and delivers that rate divided by a whole number up to " +
                   std::to_string(kMostDecimation) + " (" + rate_text(offer_facts.fps_n, offer_facts.fps_d) + ", " +
                   rate_text(offer_facts.fps_n, offer_facts.fps_d * 2) + ", " +
                   rate_text(offer_facts.fps_n, offer_facts.fps_d * 3) + ", ...); downstream takes " +
                   caps_text(peer);
        return label + ": downstream asks for another frame rate than the " +
               rate_text(offer_facts.rate_n, offer_facts.rate_d) + " this view comes at; downstream takes " +
               caps_text(peer);
    }
    return label + ": downstream takes none of the camera's formats " + caps_text(offer) + "; downstream takes " +
           caps_text(peer);
}

} // namespace

GstCaps *offer_caps(const ViewOffer &offer)
{
    std::vector<GstStructure *> structures;
    // The driver's own: nothing to change.
    GstStructure *own = raw_structure({offer.current.format}, colorimetry_for(offer, offer.current.format));
    gst_structure_set(own, "width", G_TYPE_INT, int(offer.current.width), "height", G_TYPE_INT,
                      int(offer.current.height), nullptr);
    set_rate(own, offer);
    structures.push_back(own);
    // What the element may ask the driver for, one structure for each
    // colorimetry (RGB, and YUV with grey).
    if (offer.sizes.known && !offer.formats.empty()) {
        for (bool rgb : {false, true}) {
            std::vector<uint32_t> kind;
            for (uint32_t code : offer.formats)
                if (is_rgb(code) == rgb && video_format(code) != GST_VIDEO_FORMAT_UNKNOWN)
                    kind.push_back(code);
            if (kind.empty())
                continue;
            GstStructure *structure = raw_structure(kind, colorimetry_for(offer, kind[0]));
            set_size_range(structure, "width", offer.sizes.min_width, offer.sizes.max_width, offer.sizes.step_width);
            set_size_range(structure, "height", offer.sizes.min_height, offer.sizes.max_height,
                           offer.sizes.step_height);
            set_rate(structure, offer);
            structures.push_back(structure);
        }
    }
    return in_both_memories(structures);
}

bool choose_view_caps(GstPad *pad, const ViewOffer &offer, const std::string &label, ViewChoice *choice,
                      std::string *error)
{
    GstCaps *offered = offer_caps(offer);
    GstCaps *peer = gst_pad_peer_query_caps(pad, nullptr);
    GstCaps *both = gst_caps_intersect_full(offered, peer, GST_CAPS_INTERSECT_FIRST);
    bool chosen = false;
    if (gst_caps_is_empty(both)) {
        *error = refusal(offered, peer, offer, label);
    } else {
        int rate_n = offer.rate_by_decimation ? offer.fps_n : offer.rate_n;
        int rate_d = offer.rate_by_decimation ? offer.fps_d : offer.rate_d;
        if (offer.rate_by_decimation && offer.fps_n > 0) {
            // Downstream may allow a range that holds no whole-number
            // division of the sensor's rate; the fastest one it allows.
            int n = allowed_decimation(both, offer);
            if (n == 0) {
                *error = refusal(offered, peer, offer, label);
                gst_caps_unref(both);
                gst_caps_unref(peer);
                gst_caps_unref(offered);
                return false;
            }
            rate_d = offer.fps_d * n;
        }
        GstCaps *fixed = fixate_towards(both, offer, rate_n, rate_d);
        GstStructure *structure = gst_caps_get_structure(fixed, 0);
        int width = 0, height = 0;
        gst_structure_get_int(structure, "width", &width);
        gst_structure_get_int(structure, "height", &height);
        gst_structure_get_fraction(structure, "framerate", &choice->rate_n, &choice->rate_d);
        choice->format.format = fourcc_of(gst_video_format_from_string(gst_structure_get_string(structure, "format")));
        choice->format.width = uint32_t(width);
        choice->format.height = uint32_t(height);
        choice->caps = fixed;
        chosen = true;
    }
    gst_caps_unref(both);
    gst_caps_unref(peer);
    gst_caps_unref(offered);
    return chosen;
}

int decimation_for(int fps_n, int fps_d, int rate_n, int rate_d)
{
    if (fps_n <= 0 || rate_n <= 0 || fps_d <= 0 || rate_d <= 0)
        return 0;
    // fps / rate = (fps_n * rate_d) / (fps_d * rate_n)
    int64_t over = int64_t(fps_n) * rate_d, under = int64_t(fps_d) * rate_n;
    if (over % under != 0 || over / under < 1 || over / under > kMostDecimation)
        return 0;
    return int(over / under);
}

} // namespace gstzelisp
