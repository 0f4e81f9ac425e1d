// The image graph of the offline compositor: what each operation computes,
// that only the asked-for rectangle is computed, and a golden mosaic of all
// operations on small pictures (within 2 levels on 99.9% of pixels: OpenCV
// may round its vector paths a little differently on another processor).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "image.h"
#include "native_test_util.h"

namespace {

using namespace kavlen::img;

// A colour image that records the largest rectangle asked of it.
struct Probe : Node {
  mutable int largest = 0;
  Probe() {
    extent = Rect::infinite();
    support = extent;
  }
  Tile render(const IRect& r) const override {
    largest = std::max(largest, r.width() * r.height());
    Tile t;
    t.rect = r;
    t.m = cv::Mat(r.height(), r.width(), CV_32FC4, cv::Scalar(0.2, 0.4, 0.6, 1));
    return t;
  }
};

std::array<int, 4> pixel(const Image& im, int x, int y) {
  std::vector<uint8_t> b = renderBytes(im, {x, y, x + 1, y + 1}, PixelOrder::RGBA);
  return {b[0], b[1], b[2], b[3]};
}

Image solid(float r, float g, float b, float a, double size = 16) {
  return Image::color({r, g, b, a}).cropped(Rect::xywh(0, 0, size, size));
}

TEST(NativeImage, BlendOperationsFollowTheirFormulas) {
  using P = std::array<int, 4>;
  EXPECT_EQ(pixel(solid(1, 0, 0, 0.5f).over(solid(0, 0, 1, 1)), 3, 3), (P{128, 0, 128, 255}));
  EXPECT_EQ(pixel(solid(0.8f, 0.5f, 0.2f, 1).difference(solid(0.2f, 0.5f, 0.6f, 1)), 3, 3), (P{153, 0, 102, 255}));
  EXPECT_EQ(pixel(solid(0.5f, 1, 0.2f, 1).multiply(solid(0.5f, 0.5f, 1, 1)), 3, 3), (P{64, 128, 51, 255}));
  Image mask = solid(0.25f, 0.25f, 0.25f, 1);
  EXPECT_EQ(pixel(solid(1, 1, 1, 1).blendWithMask(solid(0, 0, 0, 1), mask), 3, 3), (P{64, 64, 64, 255}));
  // Luma key: the new alpha is 0.598 R + 1.174 G + 0.228 B - 0.04, limited.
  std::array<float, 4> luma{0.598f, 1.174f, 0.228f, 0}, bias{0, 0, 0, -0.04f};
  EXPECT_EQ(pixel(solid(0.3f, 0.3f, 0.3f, 1).colorMatrix(luma, bias), 3, 3)[3], 143);
  EXPECT_EQ(pixel(solid(1, 1, 1, 1).colorMatrix(luma, bias), 3, 3)[3], 255);
  EXPECT_EQ(pixel(solid(0, 0, 0, 1).colorMatrix(luma, bias), 3, 3)[3], 0);
  EXPECT_EQ(pixel(solid(1, 1, 1, 1).colorMatrix({0, 0, 0, 0.5f}, {0, 0, 0, 0}), 3, 3), (P{128, 128, 128, 128}));
}

TEST(NativeImage, ExtentsFollowTheOperations) {
  Image c = Image::color({1, 0, 0, 1});
  EXPECT_TRUE(c.extent().isInfinite());
  Image crop = c.cropped(Rect::xywh(10, 10, 20, 20)).cropped(Rect::xywh(0, 0, 15, 100));
  EXPECT_EQ(crop.extent().x0, 10);
  EXPECT_EQ(crop.extent().x1, 15);
  EXPECT_EQ(crop.extent().y1, 30);
  Image moved = solid(1, 1, 1, 1).transformed(Affine::translate(5, -3).after(Affine::scale(2, 2)));
  EXPECT_EQ(moved.extent().x0, 5);
  EXPECT_EQ(moved.extent().y1, 29);
  Image clamp = solid(0, 1, 0, 1, 4).clampedToExtent();
  EXPECT_TRUE(clamp.extent().isInfinite());
  EXPECT_EQ(pixel(clamp, 500, -200)[1], 255);  // the edge repeats far away
  Image p = solid(1, 1, 1, 1).perspective({10, 40}, {40, 40}, {40, 10}, {10, 10});
  EXPECT_EQ(p.extent().x0, 10);
  EXPECT_EQ(pixel(p, 25, 25)[3], 255);
  EXPECT_EQ(pixel(p, 5, 25)[3], 0);
  EXPECT_TRUE(Image::color({}).perspective({0, 0}, {1, 0}, {1, 1}, {0, 1}).isNull());  // no finite extent
  EXPECT_TRUE(Image::fromStraightRgba(nullptr, 0, 0, 0).isNull());
}

TEST(NativeImage, ComputesOnlyWhatTheCropNeeds) {
  auto probe = std::make_shared<Probe>();
  Image src(probe);
  // A blur of an infinite image cropped to 100x100: the crop plus the reach.
  Image blurred = src.blurred(10).cropped(Rect::xywh(0, 0, 100, 100));
  renderBytes(blurred, {0, 0, 100, 100}, PixelOrder::RGBA);
  int reach = 2 * (31 + 1);
  EXPECT_LE(probe->largest, (100 + reach) * (100 + reach));
  // A full-frame clamp seen through a small window asks for the window only.
  probe->largest = 0;
  Image frame = src.cropped(Rect::xywh(0, 0, 1920, 1080)).clampedToExtent().blurred(4).cropped(Rect::xywh(0, 0, 1920, 1080));
  renderBytes(frame, {100, 100, 164, 164}, PixelOrder::RGBA);
  EXPECT_LE(probe->largest, (64 + 2 * 13) * (64 + 2 * 13));
}

// Sources of the mosaic: a gradient with an alpha ramp and a grey disc mask.
Image gradient() {
  std::vector<uint8_t> px(64 * 64 * 4);
  for (int y = 0; y < 64; y++)
    for (int x = 0; x < 64; x++) {
      uint8_t* p = &px[(y * 64 + x) * 4];
      p[0] = uint8_t(x * 4);
      p[1] = uint8_t(y * 4);
      p[2] = uint8_t(255 - x * 4);
      p[3] = uint8_t(x < 8 ? 0 : 96 + y * 2);
    }
  return Image::fromStraightRgba(px.data(), 64, 64, 64 * 4);
}

Image disc() {
  std::vector<uint8_t> g(64 * 64);
  for (int y = 0; y < 64; y++)
    for (int x = 0; x < 64; x++) g[y * 64 + x] = (x - 32) * (x - 32) + (y - 28) * (y - 28) < 400 ? 255 : 0;
  return Image::fromGray(g.data(), 64, 64, 64);
}

TEST(NativeImage, GoldenMosaicOfEveryOperation) {
  const Rect tile = Rect::xywh(0, 0, 64, 64);
  Image g = gradient(), m = disc();
  Image clear = Image::color({}).cropped(tile);
  std::vector<Image> ops = {
      Image::color({0.9f, 0.3f, 0.1f, 0.8f}).cropped(Rect::xywh(8, 16, 40, 24)),
      g.cropped(Rect::xywh(10.5, 5, 30, 50)),
      g.transformed(Affine::translate(32, 32).after(Affine::rotate(0.5)).after(Affine::scale(0.8, 0.6)).after(Affine::translate(-32, -32))),
      Image::color({0, 0, 1, 0.6f}).cropped(Rect::xywh(16, 16, 32, 32)).over(g),
      g.cropped(Rect::xywh(24, 24, 16, 16)).clampedToExtent().cropped(tile),
      g.clampedToExtent().blurred(2).cropped(tile),
      g.clampedToExtent().blurred(8).cropped(tile),
      m.clampedToExtent().dilated(5).cropped(tile),
      m.clampedToExtent().eroded(5).cropped(tile),
      g.blendWithMask(clear, m),
      m.clampedToExtent().dilated(4).cropped(tile).difference(m.clampedToExtent().eroded(4).cropped(tile)),
      g.multiply(m),
      g.colorMatrix({0.598f, 1.174f, 0.228f, 0}, {0, 0, 0, -0.04f}),
      g.colorMatrix({0, 0, 0, 0.4f}, {0, 0, 0, 0}),
      g.perspective({4, 60}, {50, 52}, {60, 2}, {12, 10}),
      m.clampedToExtent().blurred(6).cropped(tile).over(Image::color({0.2f, 0.1f, 0.3f, 1}).cropped(tile)),
  };
  nativetest::Frame f{256, 256, std::vector<uint8_t>(256 * 256 * 4)};
  for (size_t i = 0; i < ops.size(); i++) {
    int cx = int(i % 4) * 64, cy = int(i / 4) * 64;
    std::vector<uint8_t> b = renderBytes(ops[i], {0, 0, 64, 64}, PixelOrder::RGBA);
    for (int y = 0; y < 64; y++) std::copy_n(&b[y * 64 * 4], 64 * 4, &f.rgba[((cy + y) * 256 + cx) * 4]);
  }
  nativetest::expectGolden(f, "image_ops", 2, 0.999);
}

}  // namespace
