// The status document: one JSON object with everything about the item, the process and the buffer.
// Its members: docs/status.md. The contract's calls are meta_to_json and rebuild_json of
// platform/document.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// The document as JSON text on one line, valid UTF-8, at most max_status_document bytes. It is
// rebuilt first when it is out of date, so the result is always current and costs nothing while
// nothing changes. Valid until the next call of any function here.
const std::string& status_document();
inline constexpr size_t max_status_document = 1U << 20;

// True while the document is out of date and its last rebuild is less than ten milliseconds ago.
// Whoever then waits until document_due_us() keeps the number of rebuilds bounded, however often
// the document is changed and read.
bool document_must_wait(uint64_t now_us);
uint64_t document_due_us();

// Incremented whenever a rebuild produces a different text. A subscriber has the present document
// if it was sent it at this number.
uint64_t status_document_generation();

// The number of clients that the document shows. The clients' room sets it whenever it changes.
void set_document_clients(size_t count);

// Marks the document as out of date. Costs a store; the rebuild waits for refresh_document or a
// reader.
void mark_document_changed();

// Rebuilds a document that is out of date, at most once in ten milliseconds. True when the text
// differs from that at the last call that returned true. `now_us` is the monotonic time.
bool refresh_document(uint64_t now_us);

// The item's own texts, of any bytes; a null becomes a JSON null. They are copied.
struct document_item {
    const char* guid;
    const char* file;      // the picture, as given
    const char* file_path; // from the root
    const char* metadata_folder;
    const char* socket;
};
void set_document_item(const document_item& item);

// Metadata that would be lost if the process ended now.
struct unstored_settings {
    static constexpr size_t max_names = 100;
    size_t count = 0;
    std::vector<std::string> names; // the first of them
    std::string reason;
};

// Each rebuild calls this function for the unstored metadata. Null: there is none.
void set_unstored_source(unstored_settings (*source)());

// The value of the item's entry `name` in the document, or null when it is not there.
const std::string* document_entry(std::string_view name);

// Changes the value of an entry of the item in the document, or adds the entry.
void set_document_entry(std::string_view name, std::string_view value);

// One measure that confines the process; the name is not copied.
struct shown_measure {
    const char* name;
    bool in_force;
};
// `landlock` is the version of the kernel's rules for files that are in force; 0: none.
void set_document_confinement(const std::vector<shown_measure>& measures, int landlock);

// Resets everything to the values at program start.
void reset_document();

} // namespace platform
