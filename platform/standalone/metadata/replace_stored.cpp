#include "platform/standalone/metadata/replace_stored.h"

#include <cerrno>
#include <sys/types.h>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/replace_file.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

namespace {

// True when the records are no longer valid, so that `temporary` may be removed.
bool unmark_all(const metadata_store& store, const std::vector<pending_file*>& files,
                const std::string& temporary)
{
    bool all = true;
    for (pending_file* file : files) {
        all = unmark_stored(store, file, temporary) && all;
    }
    return all;
}

// From here until the temporary file is renamed or removed, a crash leaves either the old file and
// all settings pending, or the new file and none.
bool mark_all(const metadata_store& store, const std::vector<pending_file*>& files,
              const std::string& temporary)
{
    std::vector<pending_file*> marked;
    for (pending_file* file : files) {
        if (!mark_stored(store, file, temporary)) {
            const int error_number = errno;
            if (unmark_all(store, marked, temporary)) {
                (void)store.operations->unlink_at(store.folder, temporary.c_str());
            }
            errno = error_number;
            return false;
        }
        marked.push_back(file);
    }
    return true;
}

} // namespace

int place_temporary(const metadata_store& store, const std::string& temporary,
                    const pending_work& work, replace_failure* failure)
{
    if (!mark_all(store, work.taken_in, temporary)) {
        *failure = {.step = "write the pending part of", .error_number = errno, .replaced = false};
        return -1;
    }
    const int result = put_in_place(store.folder, temporary.c_str(), metadata_file_name, failure,
                                    *store.operations);
    if (result != 0 && !failure->replaced && unmark_all(store, work.taken_in, temporary)) {
        (void)store.operations->unlink_at(store.folder, temporary.c_str());
    }
    return result;
}

namespace {

// *failure is set on failure.
int write_text(const metadata_store& store, const std::string& text, const pending_work& work,
               replace_failure* failure)
{
    std::string temporary;
    if (write_temporary(store.folder, metadata_file_name, text, new_metadata_mode, &temporary,
                        failure, *store.operations) != 0) {
        return -1;
    }
    return place_temporary(store, temporary, work, failure);
}

} // namespace

void keep_temporaries(const pending_file& file, pending_work* work)
{
    work->kept.insert(work->kept.end(), file.temporaries.begin(), file.temporaries.end());
}

void remove_taken_in(const metadata_store& store, const pending_work& work)
{
    for (pending_file* file : work.taken_in) {
        remove_pending(store, file);
    }
}

int refuse_write(const metadata_store& store, std::string_view what, const std::string& reason,
                 std::string* reason_out)
{
    error_line(what, store.path, reason);
    if (reason_out != nullptr) {
        *reason_out = reason;
    }
    return -1;
}

int refuse_step(const metadata_store& store, const replace_failure& failure,
                std::string* reason_out)
{
    return refuse_write(store, std::string("Cannot ") + failure.step + " metadata file",
                        error_text(failure.error_number), reason_out);
}

int replace_stored(const metadata_store& store, metadata_v4_metadata_context* list,
                   const pending_work& work, std::string* reason)
{
    const std::string text = metadata_list_text(*list);
    if (text.size() > max_metadata_file) {
        return refuse_write(store, cannot_write_metadata, "it would become too large", reason);
    }
    remove_temporary_files(store.folder, metadata_file_name, *store.operations, work.kept);
    replace_failure failure;
    const int result = write_text(store, text, work, &failure);
    if (result == 0 || failure.replaced) {
        list->stored = identity_at(store.folder, metadata_file_name);
    }
    if (result != 0) {
        return refuse_step(store, failure, reason);
    }
    remove_taken_in(store, work);
    return 0;
}

} // namespace platform
