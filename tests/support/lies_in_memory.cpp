// Lies in the buffer and in the frames: descriptors, memory, messages and records.
#include <climits>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "tests/support/forged_worker.h"
#include "wire/scanline_format.h"

using namespace comm_protocol;
namespace format = scanline_format;

namespace {

using memory_maker = std::function<int(const forged_answers&)>;

lie memory(const char* name, const memory_maker& make)
{
    return {name, [make](forged_answers& answers) { answers.make_memory = make; }};
}

// Memory of the right contents with these seals.
lie seals(const char* name, int added)
{
    return memory(name, [added](const forged_answers& answers) {
        return with_seals(unsealed_memory(answers.sample.area), added);
    });
}

// A sparse file of a size that the message names.
lie sparse(const char* name, uint64_t size)
{
    return {name, [size](forged_answers& answers) {
                answers.sample.message.area_size = size;
                answers.make_memory = [size](const forged_answers&) {
                    return with_seals(sparse_memory(size), worker_seals);
                };
            }};
}

lie file(const char* name, const char* path, int flags)
{
    return memory(name, [path, flags](const forged_answers&) { return open(path, flags); });
}

int memory_with_a_hole(const forged_answers& answers)
{
    const int fd = unsealed_memory(answers.sample.area);
    if (fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096) != 0) {
        abort();
    }
    return with_seals(fd, worker_seals);
}

int write_only_memory(const forged_answers& answers)
{
    const int fd = sealed_memory(answers.sample.area);
    const int again = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_WRONLY | O_CLOEXEC);
    close(fd);
    return again;
}

int end_of_a_pipe(const forged_answers&)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        abort();
    }
    close(ends[1]);
    return ends[0];
}

// The memory is cut when its descriptor has been sent.
void cut_memory_that_was_sent(forged_answers& answers)
{
    answers.make_memory = [](const forged_answers& now) {
        return unsealed_memory(now.sample.area);
    };
    answers.instead = [](forged_answers& now, fake_peer& peer, const packet_header& header) {
        if (header.type != GET_FRAME) {
            return false;
        }
        const int fd = now.make_memory(now);
        peer.send_with_descriptor(encode(header.request, now.sample.message), fd);
        if (ftruncate(fd, 0) != 0) {
            abort();
        }
        close(fd);
        return true;
    };
}

// The record changes all the time, at a place that is validated.
void never_stand_still(forged_answers& answers)
{
    answers.make_memory = [](const forged_answers& now) {
        auto& changed = const_cast<forged_answers&>(now);
        const size_t size = now.sample.area.size();
        const int fd = unsealed_memory(now.sample.area);
        void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        auto* at = static_cast<volatile unsigned char*>(mapped) +
                   now.sample.message.scanline_offset + format::at_strides;
        changed.kept = std::make_shared<std::jthread>([=](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                *at = static_cast<unsigned char>(*at + 1);
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
            munmap(mapped, size);
        });
        return with_seals(fd, worker_seals);
    };
}

lie message(const char* name, const std::function<void(frame&)>& change)
{
    return {name, [change](forged_answers& answers) { change(answers.sample.message); }};
}

lie record(const char* name, size_t at, size_t size, uint64_t value)
{
    return {name, [=](forged_answers& answers) { answers.sample.put(at, size, value); }};
}

lie accepted(lie told)
{
    told.shows_frames = true;
    return told;
}

// A frame of another kind than the others, in turn.
void change_kind(forged_answers& answers)
{
    answers.descriptor_with_each_frame = true;
    answers.instead = [turn = 0](forged_answers& now, fake_peer&,
                                 const packet_header& header) mutable {
        if (header.type == GET_FRAME) {
            const auto kind = static_cast<unsigned>(++turn % 6);
            now.sample = frame_sample({.full_width = 40 + kind,
                                       .full_height = 30,
                                       .x_shift = kind % 3,
                                       .y_shift = kind / 3,
                                       .chroma = kind != 5,
                                       .alpha = kind % 2 == 0});
        }
        return false;
    };
}

void put_frame_number(forged_answers& answers, uint64_t number)
{
    answers.sample.message.frame_number = number;
    answers.sample.put(format::at_frame_number, 8, number);
}

} // namespace

std::vector<lie> lies_about_memory()
{
    constexpr uint64_t limit = UINT64_C(1) << 32;
    return {
        seals("MemoryWithoutSeals", 0),
        seals("MemoryThatCanShrink", worker_seals & ~F_SEAL_SHRINK),
        seals("MemoryThatCanGrow", worker_seals & ~F_SEAL_GROW),
        seals("MemoryThatCanBeGivenBack", size_seals | F_SEAL_SEAL),
        {"MemoryThatIsCutWhenItWasSent", cut_memory_that_was_sent},
        memory("MemoryWithAHole", memory_with_a_hole),
        memory("MemoryThatIsTooShort",
               [](const forged_answers& answers) {
                   return sealed_memory(std::vector<unsigned char>(answers.sample.area.begin(),
                                                                   answers.sample.area.end() - 1));
               }),
        memory("MemoryThatCannotBeRead", write_only_memory),
        sparse("SparseMemory", 1 << 20),
        sparse("SparseMemoryOfAlmost4GiB", limit - 4096),
        sparse("MemoryOf4GiB", limit),
        sparse("MemoryOfAnExbibyte", UINT64_C(1) << 60),
        memory("Pipe", end_of_a_pipe),
        memory("Epoll", [](const forged_answers&) { return epoll_create1(EPOLL_CLOEXEC); }),
        file("Device", "/dev/zero", O_RDWR | O_CLOEXEC),
        file("Folder", "/", O_RDONLY | O_DIRECTORY | O_CLOEXEC),
        file("FileOnDisk", "/proc/self/exe", O_RDONLY | O_CLOEXEC),
        memory("NoDescriptor", [](const forged_answers&) { return -1; }),
        {"DescriptorWithEachFrame",
         [](forged_answers& answers) { answers.descriptor_with_each_frame = true; }, true},
        accepted({"RecordThatNeverStandsStill", never_stand_still}),
    };
}

std::vector<lie> lies_about_frames()
{
    return {
        message("NoWidth", [](frame& f) { f.width = 0; }),
        message("NegativeHeight", [](frame& f) { f.height = -1; }),
        message("Width65536", [](frame& f) { f.width = 65'536; }),
        message("Height65536", [](frame& f) { f.height = 65'536; }),
        message("LargestSize", [](frame& f) { f.width = f.height = INT_MAX; }),
        message("WidthWithTheSameLowBits", [](frame& f) { f.width += 65'536; }),
        message("AreaOfOneMoreByte", [](frame& f) { ++f.area_size; }),
        message("AreaOf4GiB", [](frame& f) { f.area_size = UINT64_C(1) << 32; }),
        message("LargestArea", [](frame& f) { f.area_size = UINT64_MAX; }),
        message("LargestBase", [](frame& f) { f.base_offset = UINT64_MAX; }),
        message("BaseAndRecordThatWrap",
                [](frame& f) {
                    f.base_offset = UINT64_MAX - 10;
                    f.scanline_offset += 11;
                }),
        message("RecordAtTheEnd", [](frame& f) { f.scanline_offset += 1; }),
        message("RecordBeforeTheArea", [](frame& f) { f.scanline_offset = UINT64_MAX - 3; }),
        message("EmptyRecord", [](frame& f) { f.scanline_size = 0; }),
        message("LargestRecord", [](frame& f) { f.scanline_size = UINT64_MAX; }),
        message("RecordOfAnotherFrame", [](frame& f) { ++f.frame_number; }),
        message("RecordOfAnotherBuffer", [](frame& f) { ++f.buffer; }),
        record("RecordWithoutMagic", format::at_magic, 4, 0),
        record("RecordWithoutEnd", format::at_end_mark, 4, 0),
        record("RecordOfAnotherSize", format::at_full_width, 2, 65),
        record("LevelThatDoesNotExist", format::at_source_width, 4, 63U << 16U),
        record("NoStride", format::at_strides, 2, 0),
        record("ShortStride", format::at_strides, 2, 63),
        record("ShortStrideOfAlpha", format::at_strides + 6, 2, 1),
        record("LargestStride", format::at_strides, 2, 65'535),
        record("PlaneAtTheEnd", format::at_plane_offsets + 4, 4, 0xFFFFFFFE),
        record("NoLuma", format::at_plane_offsets, 4, format::absent_plane),
        record("OneChromaPlane", format::at_plane_offsets + 8, 4, format::absent_plane),
        record("UnknownSubsampling", format::at_horizontal_masks, 4, 0xFFFFFFFF),
        accepted({"PlanesOnTopOfEachOther",
                  [](forged_answers& answers) {
                      for (size_t plane = 0; plane < STILLIMAGE_PLANES; ++plane) {
                          answers.sample.put(format::at_plane_offsets + 4 * plane, 4, 0);
                      }
                  }}),
        accepted({"PlanesInReverse",
                  [](forged_answers& answers) {
                      const auto offsets = answers.sample.offsets;
                      answers.sample.put(format::at_plane_offsets, 4, offsets[STILLIMAGE_A]);
                      answers.sample.put(format::at_plane_offsets + 12, 4, offsets[STILLIMAGE_Y]);
                  }}),
        accepted(message("AspectBelowZero",
                         [](frame& f) {
                             f.aspect_numerator = INT64_MIN;
                             f.aspect_denominator = -1;
                         })),
        accepted(message("LargestAspect",
                         [](frame& f) {
                             f.aspect_numerator = INT64_MAX;
                             f.aspect_denominator = 1;
                         })),
        accepted(message("EveryFlag", [](frame& f) { f.flags = UINT_MAX; })),
        accepted({"NoFrameNumber", [](auto& answers) { put_frame_number(answers, 0); }}),
        accepted(
            {"LargestFrameNumber", [](auto& answers) { put_frame_number(answers, UINT64_MAX); }}),
        accepted({"AnotherFrameAtEachMoment",
                  [](forged_answers& answers) {
                      answers.change_frame = [](forged_answers& now, uint64_t moment) {
                          put_frame_number(now, moment + 1);
                      };
                  }}),
        accepted({"AnotherFrameAtEachRequest",
                  [](forged_answers& answers) {
                      answers.change_frame = [next = uint64_t{0}](forged_answers& now,
                                                                  uint64_t) mutable {
                          put_frame_number(now, ++next);
                      };
                  }}),
        accepted({"AnotherKindAtEachRequest", change_kind}),
    };
}
