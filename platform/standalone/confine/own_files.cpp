#include "platform/standalone/confine/own_files.h"

#include "platform/serving.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/comm/server.h"
#include "platform/standalone/confine/kept_rights.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/metadata/kept_files.h"
#include "platform/standalone/report/standard_error.h"
#include "platform/standalone/report/status.h"

namespace platform {

namespace {

void append(std::vector<kept_folder>* folders, int descriptor, std::vector<std::string> names)
{
    if (descriptor >= 0) {
        folders->push_back({{descriptor}, std::move(names)});
    }
}

std::vector<kept_folder> own_folders()
{
    std::vector<kept_folder> folders;
    if (vexa_comm_server != nullptr) {
        const comm_listener& listener = vexa_comm_server->listener;
        append(&folders, listener.folder.get(), {listener.name});
    }
    const lock_file_place lock = serve_lock_file();
    append(&folders, lock.folder, {lock.name});
    if (opened_item() != nullptr) {
        append(&folders, opened_item()->folder.get(), kept_metadata_files());
    }
    append(&folders, log_folder(), kept_log_files());
    return folders;
}

} // namespace

void take_own_places()
{
    connect_service_manager();
    if (mode_serves()) {
        reserve_in_domain();
    }
}

bool restrict_to_own_files()
{
    kept_rights rights;
    const registry_record record = record_in_domain();
    // A worker that does not serve has no buffer. One that serves without a number still has to
    // find one.
    if (!mode_serves() || record.offset != 0) {
        rights.registry = record.file;
        rights.registry_offset = record.offset;
        rights.registry_size = record.size;
    }
    rights.manager = connect_service_manager();
    return keep_own_files(own_folders(), rights);
}

} // namespace platform
