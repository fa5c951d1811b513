// KivBfExt_SetMessageSink: the public face of Common's message sink.
#include "kivbf_ext.h"
#include "message_sink.h"

uint32_t KivBfExt_SetMessageSink(const KivBfExtMessageSink *sink) {
    return MessageSink_Set(sink) ? KIVBF_OK : KIVBFEXT_ERR_MESSAGE_SINK;
}
