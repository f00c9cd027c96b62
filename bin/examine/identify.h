// Identifies the format of a picture: by its metadata when that names one, else by its first bytes.
#pragma once

// The image_type that a MIME type or a format's name stands for, in any case; IMAGE_UNKNOWN for any
// other text.
int file_type_from_name(const char* name);

// The image_type of a file with these first bytes, or IMAGE_UNKNOWN. Reads only [begin, end).
int sniff_file_type(const unsigned char* begin, const unsigned char* end);

// 0 for the number of a format; else prints the refusal and returns 1.
int check_identified_type(int type);

// Sets image_file_type. When vexa_file_type is set, its type is taken as it is, without a look at
// the file. Otherwise the type is found in the file's content, vexa_file_type is set from it, and
// the metadata is marked for writing. Returns 0, with *sniffed true when the content decided; 1
// after a message; -1, without a message, for a file that is not regular or has fewer than 16
// bytes.
int identify_file(bool* sniffed);
