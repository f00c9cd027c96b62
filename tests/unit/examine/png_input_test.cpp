// Which bytes of a PNG reach the library, and when reading ends.
#include <cerrno>

#include "bin/examine/png.h"
#include "bin/examine/png_input.h"
#include "platform/run_state.h"
#include "tests/support/png_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

constexpr char refused_size[] = "Image width and height is unacceptable\n";
constexpr char gave_up[] = "Unexpected PNG error, giving up\n";
constexpr size_t after_header = 8 + 25; // where further chunks begin in a file

// All kinds the library knows, and two it does not.
const char* const ancillary_kinds[] = {"bKGD", "cHRM", "eXIf", "gAMA", "hIST", "iCCP", "iTXt",
                                       "oFFs", "pCAL", "pHYs", "sBIT", "sCAL", "sPLT", "sRGB",
                                       "tEXt", "tIME", "tRNS", "zTXt", "abCd", "prVt"};

class PngInput : public ExamineFixture {
protected:
    static int examine(const bytes& file)
    {
        scripted::set_picture(file);
        return examine_png_file();
    }

    static int examine(const png_spec& spec) { return examine(write_png(spec)); }

    // The signature followed by these chunks.
    static bytes file_of(const std::vector<png_chunk>& chunks)
    {
        bytes file = png_signature();
        for (const png_chunk& chunk : chunks) {
            append_png_chunk(file, chunk);
        }
        return file;
    }

    // A picture of one pixel with these bytes inserted after its header.
    static bytes with(const bytes& inserted)
    {
        bytes file = write_png({.rows = {0, 1, 2, 3}});
        file.insert(file.begin() + after_header, inserted.begin(), inserted.end());
        return file;
    }

    void expect_refusal(const bytes& file, const std::string& library_message,
                        const std::string& rest = gave_up)
    {
        EXPECT_EQ(examine(file), -1) << library_message;
        EXPECT_EQ(printed(), "PNG ERROR: " + library_message +
                                 "\nlibpng error: " + library_message + "\n" + rest);
    }

    static bytes first_row(size_t size)
    {
        bytes row(size);
        if (setjmp(png_jmpbuf(png_context)) != 0) {
            return {};
        }
        png_read_row(png_context, row.data(), nullptr);
        return row;
    }
};

// --- chunks -------------------------------------------------------------------------------------

TEST_F(PngInput, AncillaryChunksAreNeitherReadNorChecked)
{
    for (const char* kind : ancillary_kinds) {
        bytes file = file_of({{"IHDR", png_header({})}, {kind, {1, 2, 3}}, {kind, {}}});
        file.back() ^= 1; // breaks the last checksum
        append_png_chunk(file, {"IDAT"});
        ASSERT_EQ(examine(file), 0) << kind;
        EXPECT_EQ(printed().find("PNG WARNING"), std::string::npos) << kind;
        EXPECT_EQ(png_get_valid(png_context, png_context_info, 0xFFFFFFFF), 0U) << kind;
        free_all_png_fileio();
    }
}

TEST_F(PngInput, TextsOfAnySizeAreSkipped)
{
    bytes text(17 << 20, 'v');
    text[1] = 0;
    ASSERT_EQ(examine({.chunks = {{"tEXt", text}, {"iTXt", text}}, .rows = {0, 1, 2, 3}}), 0);
    EXPECT_EQ(printed().find("WARNING"), std::string::npos);
    png_textp texts = nullptr;
    EXPECT_EQ(png_get_text(png_context, png_context_info, &texts, nullptr), 0);
    EXPECT_EQ(first_row(3), (bytes{1, 2, 3}));
}

TEST_F(PngInput, ThousandsOfChunksAreSkipped)
{
    png_spec spec = {.rows = {0, 1, 2, 3}};
    spec.chunks.assign(5000, {"abCd", {1, 2, 3}});
    spec.chunks.resize(10'000, {"sPLT", {'n', 0, 8}});
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(printed().find("WARNING"), std::string::npos);
    EXPECT_EQ(first_row(3), (bytes{1, 2, 3}));
}

// The buffer then ends before, inside or after the chunk heads that follow.
TEST_F(PngInput, ChunksMayEndAnywhere)
{
    png_spec spec = {.depth = 8, .colour_type = 3, .rows = {0, 1}};
    for (size_t size = 32'700; size < 32'800; ++size) {
        spec.chunks = {{"tEXt", bytes(size, 'v')}, {"PLTE", {1, 2, 3, 4, 5, 6}}, {"tRNS", {0}}};
        ASSERT_EQ(examine(spec), 0) << size;
        png_colorp colours = nullptr;
        int count = 0;
        png_get_PLTE(png_context, png_context_info, &colours, &count);
        ASSERT_EQ(count, 2) << size;
        ASSERT_EQ(first_row(1), bytes{1}) << size;
        free_all_png_fileio();
    }
}

TEST_F(PngInput, NonAncillaryChunksAreLeftToTheLibrary)
{
    expect_refusal(with(bytes{0, 0, 0, 0, 'A', 'b', 'C', 'd', 1, 2, 3, 4}), "AbCd: CRC error");
    bytes unknown;
    append_png_chunk(unknown, {"AbCd"});
    expect_refusal(with(unknown), "AbCd: unhandled critical chunk");
    expect_refusal(with(bytes{0, 0, 0, 0, 'a', '-', 'C', 'd', 1, 2, 3, 4}),
                   "a[2D]Cd: invalid chunk type");
    expect_refusal(with(bytes{0x80, 0, 0, 0, 't', 'E', 'X', 't', 1, 2, 3, 4}),
                   "PNG unsigned integer out of range");
    bytes header;
    append_png_chunk(header, {"IHDR", png_header({})});
    expect_refusal(with(header), "IHDR: out of place");
}

TEST_F(PngInput, TruncatedChunkEndsTheFile)
{
    for (const bytes& cut : {bytes{}, bytes{0, 0, 0}, bytes{0, 0, 0, 9, 't', 'E', 'X'},
                             bytes{0x7F, 0xFF, 0xFF, 0xFF, 't', 'E', 'X', 't', 'k', 0, 'v'},
                             bytes{0, 0, 0, 0, 't', 'E', 'X', 't', 1, 2, 3, 4}}) {
        bytes file = file_of({{"IHDR", png_header({})}});
        file.insert(file.end(), cut.begin(), cut.end());
        expect_refusal(file, "Read Error");
    }
}

TEST_F(PngInput, TextInsideTheImageDataEndsTheData)
{
    const bytes whole = write_png({.rows = {0, 1, 2, 3}});
    const size_t data = whole.size() - 12 - 4 - (after_header + 8);
    bytes file(whole.begin(), whole.begin() + after_header);
    const auto packed = whole.begin() + after_header + 8;
    append_png_chunk(file, {"IDAT", {packed, packed + 3}});
    append_png_chunk(file, {"tEXt", {'k', 0, 'v'}});
    append_png_chunk(file, {"IDAT", {packed + 3, packed + static_cast<ptrdiff_t>(data)}});
    ASSERT_EQ(examine(file), 0);
    printed();
    EXPECT_EQ(first_row(3), bytes{});
    EXPECT_EQ(printed(), "PNG ERROR: Not enough image data\n"
                         "libpng error: Not enough image data\n");
}

// --- chunks before the header -------------------------------------------------------------------

TEST_F(PngInput, FileThatDoesNotStartWithItsHeaderHasNoSize)
{
    const png_chunk header = {"IHDR", png_header({})};
    const std::string rest = std::string(gave_up) + refused_size;
    expect_refusal(file_of({{"tEXt", {'k', 0, 'v'}}, header}), "tEXt: missing IHDR", rest);
    expect_refusal(file_of({{"IDAT", {1}}, header}), "IDAT: Missing IHDR before IDAT", rest);
    expect_refusal(file_of({{"PLTE", {1, 2, 3}}, header}), "PLTE: missing IHDR", rest);
    expect_refusal(file_of({{"IEND"}}), "IEND: out of place", rest);
}

TEST_F(PngInput, SizeOfALaterHeaderIsChecked)
{
    const auto behind_a_chunk = [](const png_spec& spec) {
        return file_of({{"abCd", {1, 2}}, {"IHDR", png_header(spec)}, {"IDAT"}});
    };
    EXPECT_EQ(examine(behind_a_chunk({.width = 16385})), -1);
    EXPECT_NE(printed().find(std::string(gave_up) + refused_size), std::string::npos);
    EXPECT_EQ(examine(behind_a_chunk({.width = 16384, .interlace = 7})), -1);
    const std::string text = printed();
    EXPECT_EQ(text.substr(text.rfind("libpng error")),
              std::string("libpng error: Invalid IHDR data\n") + gave_up);
}

TEST_F(PngInput, FileTruncatedBeforeItsFirstChunkTypeHasNoSizeLine)
{
    const bytes whole = file_of({{"tEXt", {'k', 0, 'v'}}});
    for (size_t length = 8; length < 16; ++length) {
        expect_refusal(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)),
                       "Read Error");
    }
    expect_refusal(bytes(40, 'x'), "Not a PNG file");
}

// --- signals and errors -------------------------------------------------------------------------

class PngInputEnds : public PngInput {
protected:
    // Each chunk is larger than the buffer, so each takes a read of its own.
    static bytes file_of_many_reads()
    {
        png_spec spec = {.rows = {0, 1, 2, 3}};
        spec.chunks.assign(50, {"tEXt", bytes(40'000, 'v')});
        return write_png(spec);
    }

    // Counts reads from now on and calls `action` in read `number`.
    void in_read(int number, const std::function<void()>& action)
    {
        failing_calls::plan.on_read = [this, number, action] {
            if (++reads == number) {
                action();
            }
        };
    }

    int reads = 0;
};

TEST_F(PngInputEnds, SignalEndsTheExaminationAtTheNextRead)
{
    in_read(10, [] { DIE4 = 1; });
    EXPECT_EQ(examine(file_of_many_reads()), -1);
    EXPECT_EQ(printed(), gave_up);
    EXPECT_EQ(reads, 10);
    EXPECT_EQ(png_fp, nullptr);
}

TEST_F(PngInputEnds, ClientsAreServedAtFixedIntervals)
{
    scripted::plan.clock_step_us = 600;
    EXPECT_EQ(examine(file_of_many_reads()), 0);
    EXPECT_GE(scripted::log.idle_rounds, 50U);
}

TEST_F(PngInputEnds, InterruptedReadsAreRetried)
{
    failing_calls::plan.read = 7;
    failing_calls::plan.read_errno = EINTR;
    failing_calls::plan.max_read = 1000;
    ASSERT_EQ(examine(file_of_many_reads()), 0);
    EXPECT_EQ(first_row(3), (bytes{1, 2, 3}));
    EXPECT_EQ(printed().find("rror"), std::string::npos);
}

TEST_F(PngInputEnds, ErrorIsReportedAndEndsTheFile)
{
    failing_calls::plan.read = 20;
    failing_calls::plan.read_errno = EIO;
    scripted::set_picture(file_of_many_reads());
    EXPECT_EQ(examine_png_file(), -1);
    EXPECT_EQ(printed(), "Error while reading the picture: Input/output error\n"
                         "PNG ERROR: Read Error\nlibpng error: Read Error\n" +
                             std::string(gave_up));
}

} // namespace
