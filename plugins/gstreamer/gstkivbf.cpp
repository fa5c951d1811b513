// GStreamer element "kivbf": 2-channel S16LE or F32LE in, 1 channel out, at
// 8, 16, 32 or 48 kHz; one property per control of beam_controls.h.
#include <gst/audio/audio.h>
#include <gst/base/gstbasetransform.h>

#include <cstring>

#include "beam_core.h"
#include "kivbf_ext.h"

GST_DEBUG_CATEGORY_STATIC(kivbf_debug);
#define GST_CAT_DEFAULT kivbf_debug

namespace {

#define KIVBF_CAPS(channels)                                             \
    "audio/x-raw, format = (string) { S16LE, F32LE }, "                  \
    "rate = (int) { 8000, 16000, 32000, 48000 }, channels = (int) " channels \
    ", layout = (string) interleaved"

GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(KIVBF_CAPS("2")));
GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(KIVBF_CAPS("1")));

}  // namespace

struct GstKivbf {
    GstBaseTransform parent;
    BeamCore *core;         // created in set_caps' first call
    BeamControls controls;  // property values, under the object lock
    gboolean is_float;
    guint32 rate;
};

struct GstKivbfClass {
    GstBaseTransformClass parent_class;
};

G_DEFINE_TYPE(GstKivbf, gst_kivbf, GST_TYPE_BASE_TRANSFORM)

namespace {

// Property ids are the control index plus one.
void SetProperty(GObject *object, guint id, const GValue *value, GParamSpec *property_info) {
    auto *self = reinterpret_cast<GstKivbf *>(object);
    if (id == 0 || id > kControlCount) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property_info);
        return;
    }
    const float v = kControls[id - 1].integer ? static_cast<float>(g_value_get_int(value))
                                              : g_value_get_float(value);
    GST_OBJECT_LOCK(self);
    self->controls.value[id - 1] = v;
    GST_OBJECT_UNLOCK(self);
}

void GetProperty(GObject *object, guint id, GValue *value, GParamSpec *property_info) {
    auto *self = reinterpret_cast<GstKivbf *>(object);
    if (id == 0 || id > kControlCount) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property_info);
        return;
    }
    GST_OBJECT_LOCK(self);
    const float v = self->controls.value[id - 1];
    GST_OBJECT_UNLOCK(self);
    if (kControls[id - 1].integer)
        g_value_set_int(value, static_cast<gint>(v));
    else
        g_value_set_float(value, v);
}

void Finalize(GObject *object) {
    delete reinterpret_cast<GstKivbf *>(object)->core;
    G_OBJECT_CLASS(gst_kivbf_parent_class)->finalize(object);
}

GstCaps *TransformCaps(GstBaseTransform *, GstPadDirection direction, GstCaps *caps,
                       GstCaps *filter) {
    GstCaps *out = gst_caps_copy(caps);
    const gint channels = direction == GST_PAD_SINK ? 1 : 2;
    for (guint i = 0; i < gst_caps_get_size(out); ++i) {
        GstStructure *s = gst_caps_get_structure(out, i);
        gst_structure_set(s, "channels", G_TYPE_INT, channels, NULL);
        gst_structure_remove_field(s, "channel-mask");
    }
    if (filter != nullptr) {
        GstCaps *both = gst_caps_intersect_full(filter, out, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(out);
        out = both;
    }
    return out;
}

gboolean GetUnitSize(GstBaseTransform *, GstCaps *caps, gsize *size) {
    GstAudioInfo info;
    if (!gst_audio_info_from_caps(&info, caps)) return FALSE;
    *size = GST_AUDIO_INFO_BPF(&info);
    return TRUE;
}

gboolean SetCaps(GstBaseTransform *base, GstCaps *incaps, GstCaps *) {
    auto *self = reinterpret_cast<GstKivbf *>(base);
    GstAudioInfo info;
    if (!gst_audio_info_from_caps(&info, incaps)) return FALSE;
    const guint32 rate = static_cast<guint32>(GST_AUDIO_INFO_RATE(&info));
    if (!BeamRateSupported(rate)) {
        char text[160];
        BeamRateRefusal(rate, text, sizeof text);
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("%s", text), (nullptr));
        return FALSE;
    }
    self->is_float = GST_AUDIO_INFO_FORMAT(&info) == GST_AUDIO_FORMAT_F32LE;
    self->rate = rate;
    if (self->core == nullptr) self->core = new BeamCore;
    GST_OBJECT_LOCK(self);
    const BeamControls controls = self->controls;
    GST_OBJECT_UNLOCK(self);
    return self->core->Start(rate, controls) ? TRUE : FALSE;
}

GstFlowReturn Transform(GstBaseTransform *base, GstBuffer *inbuf, GstBuffer *outbuf) {
    auto *self = reinterpret_cast<GstKivbf *>(base);
    if (self->core == nullptr) return GST_FLOW_NOT_NEGOTIATED;
    GST_OBJECT_LOCK(self);
    const BeamControls controls = self->controls;
    GST_OBJECT_UNLOCK(self);
    GstMapInfo in, out;
    if (!gst_buffer_map(inbuf, &in, GST_MAP_READ)) return GST_FLOW_ERROR;
    if (!gst_buffer_map(outbuf, &out, GST_MAP_WRITE)) {
        gst_buffer_unmap(inbuf, &in);
        return GST_FLOW_ERROR;
    }
    if (self->is_float) {
        const auto *samples = reinterpret_cast<const float *>(in.data);
        const size_t frames = in.size / (2 * sizeof(float));
        self->core->Process(samples, samples + 1, 2, reinterpret_cast<float *>(out.data), frames,
                            controls);
    } else {
        const auto *samples = reinterpret_cast<const int16_t *>(in.data);
        const size_t frames = in.size / (2 * sizeof(int16_t));
        self->core->Process(samples, samples + 1, 2, reinterpret_cast<int16_t *>(out.data), frames,
                            controls);
    }
    gst_buffer_unmap(outbuf, &out);
    gst_buffer_unmap(inbuf, &in);
    return GST_FLOW_OK;
}

// A new stream (after a flush, or from READY) starts from a fresh handle.
gboolean SinkEvent(GstBaseTransform *base, GstEvent *event) {
    auto *self = reinterpret_cast<GstKivbf *>(base);
    if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP && self->core != nullptr) {
        GST_OBJECT_LOCK(self);
        const BeamControls controls = self->controls;
        GST_OBJECT_UNLOCK(self);
        (void)self->core->Start(self->rate, controls);
    }
    return GST_BASE_TRANSFORM_CLASS(gst_kivbf_parent_class)->sink_event(base, event);
}

// Adds the plugin's latency to what upstream reports.
gboolean Query(GstBaseTransform *base, GstPadDirection direction, GstQuery *query) {
    auto *self = reinterpret_cast<GstKivbf *>(base);
    gboolean handled = GST_BASE_TRANSFORM_CLASS(gst_kivbf_parent_class)->query(base, direction, query);
    if (handled && direction == GST_PAD_SRC && GST_QUERY_TYPE(query) == GST_QUERY_LATENCY &&
        self->rate != 0) {
        gboolean live;
        GstClockTime min, max;
        gst_query_parse_latency(query, &live, &min, &max);
        const GstClockTime ours =
            gst_util_uint64_scale_int(kPluginLatencyFrames, GST_SECOND, static_cast<gint>(self->rate));
        gst_query_set_latency(query, live, min + ours, max == GST_CLOCK_TIME_NONE ? max : max + ours);
    }
    return handled;
}

void ToGstLog(void *element, int32_t kind, const char *text) {
    const GstDebugLevel level =
        kind == 1 ? GST_LEVEL_ERROR : kind == 2 ? GST_LEVEL_WARNING : GST_LEVEL_INFO;
    char line[1024];
    g_strlcpy(line, text, sizeof line);
    GST_CAT_LEVEL_LOG(kivbf_debug, level, element, "%s", g_strchomp(line));
}

}  // namespace

static void gst_kivbf_class_init(GstKivbfClass *klass) {
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = SetProperty;
    object_class->get_property = GetProperty;
    object_class->finalize = Finalize;
    for (guint i = 0; i < kControlCount; ++i) {
        const ControlInfo &c = kControls[i];
        gchar *property = g_strdelimit(g_strdup(c.symbol), "_", '-');
        const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                    GST_PARAM_MUTABLE_PLAYING);
        GParamSpec *property_info =
            c.integer ? g_param_spec_int(property, c.name, c.name, static_cast<gint>(c.low),
                                         static_cast<gint>(c.high), static_cast<gint>(c.initial), flags)
                      : g_param_spec_float(property, c.name, c.name, c.low, c.high, c.initial, flags);
        g_object_class_install_property(object_class, i + 1, property_info);
    }
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_set_static_metadata(
        element_class, "kivbf beamformer", "Filter/Effect/Audio",
        "Two-microphone beamformer: stereo microphone pair in, one enhanced channel out; "
        "changes take effect at the next 128-frame block",
        "kivbf developers");
    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    GstBaseTransformClass *transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    transform_class->transform_caps = TransformCaps;
    transform_class->get_unit_size = GetUnitSize;
    transform_class->set_caps = SetCaps;
    transform_class->transform = Transform;
    transform_class->sink_event = SinkEvent;
    transform_class->query = Query;
}

static void gst_kivbf_init(GstKivbf *self) {
    self->core = nullptr;
    self->controls = DefaultControls();
    self->is_float = FALSE;
    self->rate = 0;
}

static gboolean plugin_init(GstPlugin *plugin) {
    GST_DEBUG_CATEGORY_INIT(kivbf_debug, "kivbf", 0, "kivbf beamformer");
    // The library's messages go to this category (GST_DEBUG=kivbf:4 shows them).
    static const KivBfExtMessageSink to_gst_log{KIVBFEXT_SINK_CALLBACK, ToGstLog, nullptr,
                                                KIVBFEXT_LEVEL_FROM_FILE};
    (void)KivBfExt_SetMessageSink(&to_gst_log);
    return gst_element_register(plugin, "kivbf", GST_RANK_NONE, gst_kivbf_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kivbf,
                  "Two-microphone beamformer", plugin_init, KIVBF_VERSION, "Proprietary", "kivbf",
                  "kivbf")
