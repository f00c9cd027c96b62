#!/usr/bin/env python3
"""Prints the properties of a picture and saves a preview, through the C library and ctypes.

    picture.py PICTURE PREVIEW.ppm [WIDTH HEIGHT]

STILLIMAGE_CLIENT_LIBRARY is the path of the library if the loader does not find it.
"""
import ctypes
import json
import os
import sys

OK = 0
START_WORKER = 1
RGB24 = 1
TIMEOUT_MS = 30000


class Picture(ctypes.Structure):
    """stillimage_picture, field by field."""

    _fields_ = [
        ("plane", ctypes.c_void_p * 4),
        ("stride", ctypes.c_uint32 * 4),
        ("plane_width", ctypes.c_uint32 * 4),
        ("plane_height", ctypes.c_uint32 * 4),
        ("width", ctypes.c_uint32),
        ("height", ctypes.c_uint32),
        ("full_width", ctypes.c_uint32),
        ("full_height", ctypes.c_uint32),
        ("scale_x", ctypes.c_uint32),
        ("scale_y", ctypes.c_uint32),
        ("chroma_x_shift", ctypes.c_uint8),
        ("chroma_y_shift", ctypes.c_uint8),
        ("range", ctypes.c_uint8),
        ("matrix", ctypes.c_uint8),
        ("frame_number", ctypes.c_uint64),
        ("aspect_numerator", ctypes.c_int64),
        ("aspect_denominator", ctypes.c_int64),
        ("provisional", ctypes.c_int32),
    ]


class Failure(Exception):
    """A failed call of the library."""


def load_library():
    """Loads the library and declares the types of the calls used here."""
    library = ctypes.CDLL(os.environ.get("STILLIMAGE_CLIENT_LIBRARY", "libstillimage_client.so.1"))
    handle = ctypes.c_void_p
    place = ctypes.POINTER(ctypes.c_void_p)
    calls = {
        "connect_picture": (ctypes.c_int, [ctypes.c_char_p, ctypes.c_uint, ctypes.c_int, place]),
        "close": (None, [handle]),
        "last_error": (ctypes.c_char_p, [handle]),
        "get_frame": (
            ctypes.c_int,
            [handle, ctypes.c_uint64, ctypes.c_int32, ctypes.c_int32, ctypes.c_int, place],
        ),
        "frame_picture": (ctypes.POINTER(Picture), [handle]),
        "frame_release": (None, [handle]),
        "get_status": (ctypes.c_int, [handle, ctypes.c_int, place]),
        "free": (None, [handle]),
        "picture_to_pixels": (
            ctypes.c_int,
            [
                ctypes.POINTER(Picture),
                ctypes.c_uint32,
                ctypes.c_uint32,
                ctypes.c_uint32,
                ctypes.c_char_p,
                ctypes.c_size_t,
            ],
        ),
    }
    for name, (result, arguments) in calls.items():
        call = getattr(library, "stillimage_" + name)
        call.restype = result
        call.argtypes = arguments
    return library


class Client:
    """A connection to a picture's worker, which is started if there is none."""

    def __init__(self, library, path):
        self.library = library
        self.handle = ctypes.c_void_p()
        self.check(
            library.stillimage_connect_picture(
                os.fsencode(path), START_WORKER, TIMEOUT_MS, ctypes.byref(self.handle)
            )
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.library.stillimage_close(self.handle)

    def check(self, result):
        """Raises Failure with the reason if the result is an error."""
        if result != OK:
            raise Failure(self.library.stillimage_last_error(self.handle).decode(errors="replace"))

    def status(self):
        """Returns the status document."""
        text = ctypes.c_void_p()
        self.check(self.library.stillimage_get_status(self.handle, TIMEOUT_MS, ctypes.byref(text)))
        try:
            return json.loads(ctypes.string_at(text.value))
        finally:
            self.library.stillimage_free(text)

    def pixels(self, width, height):
        """Returns width, height and RGB bytes at that size; 0 x 0 is the full size."""
        frame = ctypes.c_void_p()
        self.check(
            self.library.stillimage_get_frame(
                self.handle, 0, width, height, TIMEOUT_MS, ctypes.byref(frame)
            )
        )
        try:
            picture = self.library.stillimage_frame_picture(frame).contents
            width = width or picture.width
            height = height or picture.height
            rgb = ctypes.create_string_buffer(width * height * 3)
            self.check(
                self.library.stillimage_picture_to_pixels(
                    ctypes.byref(picture), RGB24, width, height, rgb, width * 3
                )
            )
            return width, height, rgb.raw
        finally:
            self.library.stillimage_frame_release(frame)


def main(arguments):
    """Runs with these arguments and returns the exit status."""
    if len(arguments) not in (2, 4):
        print(__doc__, file=sys.stderr)
        return 2
    wanted = [int(word) for word in arguments[2:]] or [0, 0]
    try:
        with Client(load_library(), arguments[0]) as client:
            width, height, rgb = client.pixels(*wanted)
            item = client.status()["item"]
            print(f"{item['file type']}: {width} x {height}, {item['time duration']} units long")
        with open(arguments[1], "wb") as file:
            file.write(b"P6\n%d %d\n255\n" % (width, height) + rgb)
    except (Failure, OSError) as failure:
        print(failure, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
