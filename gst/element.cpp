// What GObject and the base class require: properties, the pad template, and virtual functions that
// forward to picture_source.
#include "gst/element.h"

#include <gst/base/gstpushsrc.h>
#include <gst/video/video.h>
#include <new>
#include <string>

#include "gst/picture_source.h"

GST_DEBUG_CATEGORY(stillimage_src_debug);
#define GST_CAT_DEFAULT stillimage_src_debug

namespace {

struct stillimage_src {
    GstPushSrc parent;
    picture_source* source;
    source_settings* settings; // guarded by the object lock
};

struct stillimage_src_class {
    GstPushSrcClass parent;
};

GstBaseSrcClass* parent_class = nullptr;

enum property {
    PROPERTY_LOCATION = 1,
    PROPERTY_SOCKET,
    PROPERTY_START_WORKER,
    PROPERTY_TIMEOUT,
    PROPERTY_LOOPS,
    PROPERTY_WANTED_WIDTH,
    PROPERTY_WANTED_HEIGHT,
    PROPERTY_IS_LIVE
};

stillimage_src* self_of(gpointer object)
{
    return static_cast<stillimage_src*>(object);
}

picture_source& source_of(gpointer object)
{
    return *self_of(object)->source;
}

// --- properties ----------------------------------------------------------------------------------

void set_text(std::string* text, const GValue* value)
{
    const char* given = g_value_get_string(value);
    *text = given == nullptr ? "" : given;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec)
{
    source_settings& settings = *self_of(object)->settings;
    if (id == PROPERTY_IS_LIVE) {
        gst_base_src_set_live(GST_BASE_SRC(object), g_value_get_boolean(value));
        return;
    }
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROPERTY_LOCATION:
        set_text(&settings.where.picture, value);
        break;
    case PROPERTY_SOCKET:
        set_text(&settings.where.socket, value);
        break;
    case PROPERTY_START_WORKER:
        settings.where.start_worker = g_value_get_boolean(value) != FALSE;
        break;
    case PROPERTY_TIMEOUT:
        settings.timeout_ms = g_value_get_int(value);
        break;
    case PROPERTY_LOOPS:
        settings.loops = g_value_get_int(value);
        break;
    case PROPERTY_WANTED_WIDTH:
        settings.wanted_width = g_value_get_int(value);
        break;
    case PROPERTY_WANTED_HEIGHT:
        settings.wanted_height = g_value_get_int(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    GST_OBJECT_UNLOCK(object);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* spec)
{
    const source_settings& settings = *self_of(object)->settings;
    if (id == PROPERTY_IS_LIVE) {
        g_value_set_boolean(value, gst_base_src_is_live(GST_BASE_SRC(object)));
        return;
    }
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROPERTY_LOCATION:
        g_value_set_string(value, settings.where.picture.c_str());
        break;
    case PROPERTY_SOCKET:
        g_value_set_string(value, settings.where.socket.c_str());
        break;
    case PROPERTY_START_WORKER:
        g_value_set_boolean(value, settings.where.start_worker ? TRUE : FALSE);
        break;
    case PROPERTY_TIMEOUT:
        g_value_set_int(value, settings.timeout_ms);
        break;
    case PROPERTY_LOOPS:
        g_value_set_int(value, settings.loops);
        break;
    case PROPERTY_WANTED_WIDTH:
        g_value_set_int(value, settings.wanted_width);
        break;
    case PROPERTY_WANTED_HEIGHT:
        g_value_set_int(value, settings.wanted_height);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
    GST_OBJECT_UNLOCK(object);
}

constexpr auto changed_in_ready =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

void install_number(GObjectClass* object, property id, const char* name, const char* nick,
                    const char* blurb, int min, int usual)
{
    g_object_class_install_property(
        object, id, g_param_spec_int(name, nick, blurb, min, G_MAXINT, usual, changed_in_ready));
}

void install_properties(GObjectClass* object)
{
    g_object_class_install_property(
        object, PROPERTY_LOCATION,
        g_param_spec_string("location", "Location",
                            "The picture: a TIFF, JPEG, PNG, GIF or WebP file", "",
                            changed_in_ready));
    g_object_class_install_property(
        object, PROPERTY_SOCKET,
        g_param_spec_string("socket", "Socket",
                            "Socket of the worker to take the picture from, instead of a location",
                            "", changed_in_ready));
    g_object_class_install_property(
        object, PROPERTY_START_WORKER,
        g_param_spec_boolean("start-worker", "Start worker",
                             "Start a worker when none serves the location", TRUE,
                             changed_in_ready));
    g_object_class_install_property(object, PROPERTY_IS_LIVE,
                                    g_param_spec_boolean("is-live", "Is live",
                                                         "Whether to act as a live source", FALSE,
                                                         changed_in_ready));
    install_number(object, PROPERTY_TIMEOUT, "timeout", "Timeout",
                   "Milliseconds for a worker to start, to answer, and to come back after its end",
                   0, source_settings{}.timeout_ms);
    install_number(object, PROPERTY_LOOPS, "loops", "Loops",
                   "How often an animation is played (-1 = without end)", -1,
                   source_settings{}.loops);
    install_number(
        object, PROPERTY_WANTED_WIDTH, "wanted-width", "Wanted width",
        "Width of the output that the picture is for: the reduced size that fits it best "
        "is delivered (0 = full size)",
        0, 0);
    install_number(object, PROPERTY_WANTED_HEIGHT, "wanted-height", "Wanted height",
                   "Height of the output that the picture is for (0 = full size)", 0, 0);
}

// --- base class ----------------------------------------------------------------------------------

gboolean start(GstBaseSrc* base)
{
    GST_OBJECT_LOCK(base);
    const source_settings settings = *self_of(base)->settings;
    GST_OBJECT_UNLOCK(base);
    return source_of(base).start(settings) ? TRUE : FALSE;
}

gboolean stop(GstBaseSrc* base)
{
    source_of(base).stop();
    return TRUE;
}

gboolean unlock(GstBaseSrc* base)
{
    source_of(base).interrupt(true);
    return TRUE;
}

gboolean unlock_stop(GstBaseSrc* base)
{
    source_of(base).interrupt(false);
    return TRUE;
}

gboolean is_seekable(GstBaseSrc* /*base*/)
{
    return TRUE;
}

gboolean do_seek(GstBaseSrc* base, GstSegment* segment)
{
    if (segment->rate < 0 || segment->format != GST_FORMAT_TIME) {
        return FALSE;
    }
    segment->time = segment->start;
    source_of(base).seek(segment->position);
    return TRUE;
}

GstCaps* get_caps(GstBaseSrc* base, GstCaps* filter)
{
    GstCaps* caps = source_of(base).caps();
    if (caps == nullptr) {
        caps = gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(base));
    }
    if (filter == nullptr) {
        return caps;
    }
    GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(caps);
    return both;
}

// Negotiation is about the picture's sizes, so this waits for the picture.
gboolean negotiate(GstBaseSrc* base)
{
    if (!source_of(base).prepare()) {
        return FALSE;
    }
    if (parent_class->negotiate(base)) {
        return TRUE;
    }
    if (!GST_PAD_IS_FLUSHING(GST_BASE_SRC_PAD(base))) {
        GstCaps* own = source_of(base).caps();
        gchar* text = gst_caps_to_string(own);
        GST_ELEMENT_ERROR(base, CORE, NEGOTIATION,
                          ("The next element takes none of the picture's sizes and formats; put "
                           "videoscale and videoconvert between"),
                          ("%s", text));
        g_free(text);
        gst_caps_unref(own);
    }
    return FALSE;
}

GstCaps* fixate(GstBaseSrc* base, GstCaps* caps)
{
    return source_of(base).fixate(caps);
}

gboolean set_caps(GstBaseSrc* base, GstCaps* caps)
{
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) {
        return FALSE;
    }
    source_of(base).set_format(info);
    return TRUE;
}

// Buffers have their own memory, so no pool is used.
gboolean decide_allocation(GstBaseSrc* base, GstQuery* query)
{
    source_of(base).set_video_meta(
        gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr) != FALSE);
    while (gst_query_get_n_allocation_pools(query) > 0) {
        gst_query_remove_nth_allocation_pool(query, 0);
    }
    return TRUE;
}

gboolean query_source(GstBaseSrc* base, GstQuery* query)
{
    GstFormat format = GST_FORMAT_UNDEFINED;
    if (GST_QUERY_TYPE(query) == GST_QUERY_DURATION) {
        gst_query_parse_duration(query, &format, nullptr);
        const GstClockTime duration = source_of(base).duration();
        if (format == GST_FORMAT_TIME && GST_CLOCK_TIME_IS_VALID(duration)) {
            gst_query_set_duration(query, format, static_cast<gint64>(duration));
            return TRUE;
        }
    }
    return parent_class->query(base, query);
}

void get_times(GstBaseSrc* base, GstBuffer* buffer, GstClockTime* from, GstClockTime* to)
{
    *from = GST_CLOCK_TIME_NONE;
    *to = GST_CLOCK_TIME_NONE;
    if (gst_base_src_is_live(base) && GST_BUFFER_PTS_IS_VALID(buffer)) {
        *from = GST_BUFFER_PTS(buffer);
        if (GST_BUFFER_DURATION_IS_VALID(buffer)) {
            *to = *from + GST_BUFFER_DURATION(buffer);
        }
    }
}

GstFlowReturn create(GstPushSrc* push, GstBuffer** buffer)
{
    // Negotiations, should the picture change its shape again and again.
    constexpr int max_tries = 3;
    bool renegotiate = true;
    GstFlowReturn flow = GST_FLOW_OK;
    for (int tries = 0; tries < max_tries && renegotiate && flow == GST_FLOW_OK; ++tries) {
        flow = source_of(push).next(buffer, &renegotiate);
        if (flow == GST_FLOW_OK && renegotiate && !gst_base_src_negotiate(GST_BASE_SRC(push))) {
            flow = GST_FLOW_NOT_NEGOTIATED;
        }
    }
    return flow == GST_FLOW_OK && renegotiate ? GST_FLOW_NOT_NEGOTIATED : flow;
}

// --- object --------------------------------------------------------------------------------------

void init(GTypeInstance* instance, gpointer /*type*/)
{
    stillimage_src* self = self_of(instance);
    self->source = new picture_source(GST_ELEMENT(instance));
    self->settings = new source_settings;
    gst_base_src_set_format(GST_BASE_SRC(instance), GST_FORMAT_TIME);
}

void finalize(GObject* object)
{
    delete self_of(object)->source;
    delete self_of(object)->settings;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

GstStaticPadTemplate source_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, "
                    "format=(string){ I420, Y444, Y42B, GRAY8, A420, AYUV, Y41B, YUV9 }, "
                    "width=(int)[1, MAX], height=(int)[1, MAX], framerate=(fraction)[0, MAX]"));

void class_init(gpointer type, gpointer /*data*/)
{
    parent_class = GST_BASE_SRC_CLASS(g_type_class_peek_parent(type));
    GObjectClass* object = G_OBJECT_CLASS(type);
    object->set_property = set_property;
    object->get_property = get_property;
    object->finalize = finalize;
    install_properties(object);

    GstElementClass* element = GST_ELEMENT_CLASS(type);
    gst_element_class_set_static_metadata(
        element, "Still image source", "Source/Video",
        "Plays a still picture or an animation out of a worker's shared memory",
        "The stillimage developers");
    gst_element_class_add_static_pad_template(element, &source_template);

    GstBaseSrcClass* base = GST_BASE_SRC_CLASS(type);
    base->start = start;
    base->stop = stop;
    base->unlock = unlock;
    base->unlock_stop = unlock_stop;
    base->is_seekable = is_seekable;
    base->do_seek = do_seek;
    base->get_caps = get_caps;
    base->negotiate = negotiate;
    base->fixate = fixate;
    base->set_caps = set_caps;
    base->decide_allocation = decide_allocation;
    base->query = query_source;
    base->get_times = get_times;
    GST_PUSH_SRC_CLASS(type)->create = create;
}

gboolean plugin_init(GstPlugin* plugin)
{
    GST_DEBUG_CATEGORY_INIT(stillimage_src_debug, "stillimagesrc", 0, "still image source");
    return gst_element_register(plugin, "stillimagesrc", GST_RANK_NONE, stillimage_src_get_type());
}

} // namespace

GType stillimage_src_get_type()
{
    static const GType type = g_type_register_static_simple(
        GST_TYPE_PUSH_SRC, "GstStillimageSrc", sizeof(stillimage_src_class), class_init,
        sizeof(stillimage_src), init, GTypeFlags{});
    return type;
}

#define PACKAGE "stillimage"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, stillimage,
                  "Still pictures and animations from stillimage workers", plugin_init,
                  STILLIMAGE_VERSION, "MIT", "stillimage", "stillimage")
