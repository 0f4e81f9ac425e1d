// The calibration chart that an output shows in "testPattern" mode: a grid of
// tenths, a border, a centre cross, two circles, corner marks and labels,
// drawn on the processor with Cairo and Pango.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Draws a chart of width by height pixels into `rgba`: premultiplied R, G, B,
// A bytes, top row first, rows of 4 * width bytes. False (and `rgba` empty)
// when the size is not above 0 or Cairo cannot make the bitmap.
bool drawTestChart(int32_t width, int32_t height, const std::vector<std::string>& labels, std::vector<uint8_t>& rgba);

// The labels for a scene size shown on a target size: the scene's size, and
// the target's when it differs.
std::vector<std::string> testChartLabels(int32_t sceneW, int32_t sceneH, int32_t targetW, int32_t targetH);
