// Photo sources: generated cards are real JPEGs of the asked size that differ per photo, padding
// hits the target exactly, folders are read in name order and cycle, and a missing camera is
// reported and passed over.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <turbojpeg.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "folder_source.h"
#include "generated_source.h"
#include "photo_source.h"
#include "photo_writer.h"
#include "v4l2_source.h"

namespace QUEX::Tandra::CameraApp {
namespace {

namespace fs = std::filesystem;

class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/camera_sources_XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir() { fs::remove_all(path_); }
    const std::string& path() const { return path_; }
    std::string Write(const std::string& name, const std::string& bytes) const
    {
        std::string file = path_ + "/" + name;
        std::ofstream(file, std::ios::binary) << bytes;
        return file;
    }

private:
    std::string path_;
};

std::string Contents(const Photo& photo)
{
    return std::string(photo.Bytes(), photo.Bytes() + photo.size);
}

// Decodes the whole image, so a broken entropy stream fails and not only a broken header.
bool Decode(const Photo& photo, int* width, int* height, std::vector<uint8_t>* rgb)
{
    tjhandle handle = tjInitDecompress();
    int subsamp = 0;
    int colorspace = 0;
    bool ok = tjDecompressHeader3(handle, photo.Bytes(), photo.size, width, height, &subsamp, &colorspace) == 0;
    if (ok) {
        rgb->resize(static_cast<size_t>(*width) * *height * 3);
        ok = tjDecompress2(handle, photo.Bytes(), photo.size, rgb->data(), *width, 0, *height, TJPF_RGB, 0) == 0;
    }
    tjDestroy(handle);
    return ok;
}

PhotoSourceOptions GeneratedOptions(uint32_t width, uint32_t height)
{
    PhotoSourceOptions options;
    options.kind = SourceKind::Generated;
    options.width = width;
    options.height = height;
    options.deviceName = "Tablet B";
    options.clock = [] { return std::time_t{1700000000}; };
    return options;
}

struct SizeRow {
    uint32_t width;
    uint32_t height;
};

void PrintTo(const SizeRow& row, std::ostream* out) { *out << row.width << 'x' << row.height; }

class GeneratedSizes : public testing::TestWithParam<SizeRow> {};

TEST_P(GeneratedSizes, CardIsAJpegOfTheSizeAndDiffersPerPhoto)
{
    GeneratedSource source(GeneratedOptions(GetParam().width, GetParam().height));
    std::string error;
    ASSERT_TRUE(source.Open(&error)) << error;
    Photo first;
    Photo second;
    ASSERT_EQ(source.Capture(0, first, &error), PHOTO_OK) << error;
    ASSERT_EQ(source.Capture(1, second, &error), PHOTO_OK) << error;
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels1;
    std::vector<uint8_t> pixels2;
    ASSERT_TRUE(Decode(first, &width, &height, &pixels1));
    EXPECT_EQ(width, static_cast<int>(GetParam().width));
    EXPECT_EQ(height, static_cast<int>(GetParam().height));
    ASSERT_TRUE(Decode(second, &width, &height, &pixels2));
    EXPECT_NE(pixels1, pixels2) << "photo numbers must show in the pixels";
    EXPECT_EQ(first.extension, ".jpg");
}

INSTANTIATE_TEST_SUITE_P(CardSizes, GeneratedSizes, testing::Values(SizeRow{1280, 720}, SizeRow{333, 77}, SizeRow{16, 16}),
                         [](const testing::TestParamInfo<SizeRow>& info) {
                             return std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
                         });

TEST(GeneratedSourceTest, PaddedPhotosHitTheTargetAndStillDecodeInOneReusedBuffer)
{
    PhotoSourceOptions options = GeneratedOptions(320, 240);
    Photo natural;
    std::string error;
    {
        GeneratedSource plain(options);
        ASSERT_TRUE(plain.Open(&error));
        ASSERT_EQ(plain.Capture(0, natural, &error), PHOTO_OK);
    }
    for (uint64_t target :
         {uint64_t{natural.size + 4}, uint64_t{65537 * 3 + 11}, uint64_t{3 << 20}, uint64_t{natural.size / 2}}) {
        SCOPED_TRACE(target);
        options.targetBytes = target;
        GeneratedSource source(options);
        ASSERT_TRUE(source.Open(&error));
        Photo photo;
        ASSERT_EQ(source.Capture(0, photo, &error), PHOTO_OK);
        EXPECT_EQ(photo.size, std::max<uint64_t>(target, natural.size));
        const uint8_t* buffer = photo.Bytes();
        ASSERT_EQ(source.Capture(1, photo, &error), PHOTO_OK);
        EXPECT_EQ(photo.Bytes(), buffer) << "the second photo must reuse the first one's buffer";
        int width = 0;
        int height = 0;
        std::vector<uint8_t> pixels;
        EXPECT_TRUE(Decode(photo, &width, &height, &pixels));
        EXPECT_EQ(width, 320);
    }
}

TEST(GeneratedSourceTest, ImpossibleSizeOrQualityIsRefusedAtOpen)
{
    std::string error;
    EXPECT_FALSE(GeneratedSource(GeneratedOptions(100000, 100000)).Open(&error));
    EXPECT_NE(error.find("64 megapixels"), std::string::npos) << error;
    PhotoSourceOptions options = GeneratedOptions(64, 64);
    options.quality = 0;
    EXPECT_FALSE(GeneratedSource(options).Open(&error));
    EXPECT_NE(error.find("quality"), std::string::npos) << error;
}

TEST(FolderSourceTest, ImagesInNameOrderAsTheyAreCycling)
{
    TempDir dir;
    dir.Write("b.png", "PNG-B");
    dir.Write("a.jpg", "JPEG-A");
    dir.Write("c.JPEG", "JPEG-C");
    dir.Write("notes.txt", "not a photo");
    fs::create_directory(dir.path() + "/d.jpg");  // a folder, whatever its name
    FolderSource source(dir.path());
    std::string error;
    ASSERT_TRUE(source.Open(&error)) << error;
    ASSERT_EQ(source.Files().size(), 3u);
    Photo photo;
    const std::pair<const char*, const char*> expected[] = {
        {"JPEG-A", ".jpg"}, {"PNG-B", ".png"}, {"JPEG-C", ".jpeg"}, {"JPEG-A", ".jpg"}, {"PNG-B", ".png"}};
    for (uint32_t i = 0; i < std::size(expected); ++i) {
        ASSERT_EQ(source.Capture(i, photo, &error), PHOTO_OK) << error;
        EXPECT_EQ(Contents(photo), expected[i].first) << i;
        EXPECT_EQ(photo.extension, expected[i].second) << i;
    }

    fs::remove(dir.path() + "/b.png");
    EXPECT_EQ(source.Capture(1, photo, &error), PHOTO_ERR_IO);
    EXPECT_NE(error.find("b.png"), std::string::npos) << error;
}

TEST(FolderSourceTest, EmptyOrMissingFolderSaysWhatToDo)
{
    TempDir dir;
    dir.Write("readme.txt", "no photos here");
    std::string error;
    EXPECT_FALSE(FolderSource(dir.path()).Open(&error));
    EXPECT_NE(error.find("no image files"), std::string::npos) << error;
    EXPECT_NE(error.find(dir.path()), std::string::npos) << error;
    EXPECT_FALSE(FolderSource(dir.path() + "/missing").Open(&error));
    EXPECT_NE(error.find("--from-dir"), std::string::npos) << error;
}

TEST(ChoosePhotoSourceTest, MissingOrBogusCameraIsReportedAndPassedOver)
{
    TempDir devices;
    TempDir photos;
    photos.Write("x.jpg", "JPEG-X");
    PhotoSourceOptions options = GeneratedOptions(64, 48);
    options.kind = SourceKind::Auto;
    options.cameraDir = devices.path();

    SourceChoice choice = ChoosePhotoSource(options);
    ASSERT_TRUE(choice.source);
    EXPECT_NE(choice.source->Describe().find("generated"), std::string::npos);
    ASSERT_EQ(choice.skipped.size(), 1u);
    EXPECT_NE(choice.skipped[0].find("no video device"), std::string::npos) << choice.skipped[0];

    // A node named like a camera that is not one: the folder comes next.
    std::string bogus = devices.Write("video0", "");
    options.folder = photos.path();
    choice = ChoosePhotoSource(options);
    ASSERT_TRUE(choice.source);
    EXPECT_NE(choice.source->Describe().find("folder"), std::string::npos);
    ASSERT_EQ(choice.skipped.size(), 1u);
    EXPECT_NE(choice.skipped[0].find(bogus), std::string::npos) << choice.skipped[0];
    EXPECT_NE(choice.skipped[0].find("not a V4L2 video device"), std::string::npos) << choice.skipped[0];

    // Asked for the camera only: no fallback, and the reason.
    options.kind = SourceKind::Camera;
    options.cameraPath = devices.path() + "/video7";
    choice = ChoosePhotoSource(options);
    EXPECT_FALSE(choice.source);
    ASSERT_EQ(choice.skipped.size(), 1u);
    EXPECT_NE(choice.skipped[0].find("cannot open"), std::string::npos) << choice.skipped[0];
}

TEST(ChoosePhotoSourceTest, VideoDevicesAreTriedInNumberOrder)
{
    TempDir devices;
    for (const char* name : {"video10", "video2", "video0", "videoX", "vbi0"}) {
        devices.Write(name, "");
    }
    std::vector<std::string> found = ListVideoDevices(devices.path());
    std::vector<std::string> expected = {devices.path() + "/video0", devices.path() + "/video2",
                                         devices.path() + "/video10"};
    EXPECT_EQ(found, expected);
}

TEST(PhotoWriterTest, SavesWholeFilesUnderFinalNamesOnly)
{
    TempDir dir;
    PhotoWriter writer(dir.path() + "/new/photos");
    std::string error;
    ASSERT_TRUE(writer.Prepare(&error)) << error;
    Photo photo;
    photo.data.assign(100, 'z');  // a reused buffer holds more than the photo
    std::memcpy(photo.data.data(), "PNGDATA", 7);
    photo.size = 7;
    photo.extension = ".png";
    std::string path;
    ASSERT_TRUE(writer.Save(11, photo, &path, &error)) << error;
    EXPECT_EQ(path, dir.path() + "/new/photos/photo-0012.png");
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "PNGDATA");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path() + "/new/photos"), fs::directory_iterator()), 1);

    dir.Write("file", "x");
    EXPECT_FALSE(PhotoWriter(dir.path() + "/file").Prepare(&error));
    EXPECT_NE(error.find("--out"), std::string::npos) << error;
}

TEST(ParseTest, SizesAndByteCounts)
{
    uint32_t w = 0;
    uint32_t h = 0;
    EXPECT_TRUE(ParseImageSize("1920x1080", &w, &h));
    EXPECT_EQ(w, 1920u);
    EXPECT_EQ(h, 1080u);
    for (const char* bad : {"1920", "x1080", "0x10", "10x", "-1x5", "12x3x4", "1e3x2"}) {
        EXPECT_FALSE(ParseImageSize(bad, &w, &h)) << bad;
    }
    const std::pair<const char*, uint64_t> good[] = {
        {"4096", 4096}, {"64k", 65536}, {"4MiB", 4u << 20}, {"1.5M", 3u << 19}, {"1G", 1ull << 30}};
    for (const auto& [text, bytes] : good) {
        uint64_t parsed = 0;
        EXPECT_TRUE(ParseByteSize(text, &parsed)) << text;
        EXPECT_EQ(parsed, bytes) << text;
    }
    uint64_t parsed = 0;
    for (const char* bad : {"", "MiB", "-5", "4 MiB", "4TiB", "1e6", "99G"}) {
        EXPECT_FALSE(ParseByteSize(bad, &parsed)) << bad;
    }
}

}  // namespace
}  // namespace QUEX::Tandra::CameraApp
