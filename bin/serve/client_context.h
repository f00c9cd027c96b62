// The object that the platform asks the program for when a client connects.
#pragma once

#include "platform/clients.h"

// Sets the base's picture size and duration, for a host's framework that reads them. The
// stand-alone platform does not: its clients take both from the status document.
class stillimage_client_context final : public vexa_client_context {
public:
    explicit stillimage_client_context(unsigned long id);
    ~stillimage_client_context() override = default;
};

// The platform's factory: a context that the platform owns, or null when there is no memory.
vexa_client_context* my_new_client_context(unsigned long id);

// Updates the contexts of clients that connected before the picture was examined.
void update_client_contexts();
