#include "tests/unit/serve/serve_fixture.h"

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "platform/clients.h"
#include "tests/support/failing_calls.h"

namespace {

void reset_everything()
{
    scripted::reset();
    failing_calls::plan = {};
    reset_image_state();
    reset_layout();
    reset_mipmaps();
}

} // namespace

void ServeFixture::SetUp()
{
    reset_everything();
}

void ServeFixture::TearDown()
{
    reset_everything();
}

void ServeFixture::want_size(int32_t width, int32_t height)
{
    client_context_tracking& client = vexa_client_contexts.tracked[client_id];
    client.id = client_id;
    client.requested_width = width;
    client.requested_height = height;
}
