// Which of the five formats a picture has: as its metadata names it, else as its first bytes show.
#pragma once

#include <cstddef>

// The mime string of an image_type, as stored in the metadata; null for a type that is not one of
// ours.
const char* mime_of_file_type(int type);

// The name of an image_type for people: "TIFF", "JPEG", "PNG", "GIF", "WebP"; null likewise.
const char* name_of_file_type(int type);

// The image_type that a mime string or a name stands for, in any case; IMAGE_UNKNOWN for other
// text.
int file_type_from_name(const char* name);

// The image_type by the first bytes of a file, or IMAGE_UNKNOWN. Reads only [begin, end).
int sniff_file_type(const unsigned char* begin, const unsigned char* end);

// 0 for one of the five types; else 1, with the refusal printed.
int check_identified_type(int type);

// Sets image_file_type from vexa_file_type when that is set, which is then believed; else from the
// file's content, which also sets vexa_file_type and asks for the metadata to be written.
// 0 with *sniffed saying which of the two it was; 1 with a message; -1, without one, for anything
// but a regular file of at least 16 bytes.
int identify_file(bool* sniffed);
