// One connected client, as the platform asks the program for it.
#pragma once

#include "platform/media_item.h"

// Carries the picture's size and running time to the client.
class stillimage_client_context final : public vexa_client_context {
public:
    explicit stillimage_client_context(unsigned long id);
    ~stillimage_client_context() override = default;
};

// The platform's factory: a context that the platform owns, or null without memory.
vexa_client_context* my_new_client_context(unsigned long id);

// Gives the clients that came while the picture was examined what is known of it now.
void update_client_contexts();
