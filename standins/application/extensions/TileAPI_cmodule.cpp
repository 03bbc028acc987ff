// Shades tiles of a picture. The interpreter's lock is let go meanwhile, so that tiles on several
// threads take several processors.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "standins/application/extensions/ModuleOfFunctions.h"

namespace {

constexpr int channelCount = 3;
// So that a cancelled render ends soon: its threads look up between two tiles.
constexpr int mostSamples = 16;
constexpr double leastScale = 0.01;

struct Tile {
    int left, top, right, bottom;
};

struct Look {
    std::array<double, channelCount> light;
    std::array<double, channelCount> dark;
    int checker;
    double noise;
    double scale;
    int samples;
};

/// @return a value from 0 to 1 that is the lattice point's own
double latticeValue(std::int64_t column, std::int64_t row) {
    std::uint64_t bits = static_cast<std::uint64_t>(column) * 0x9E3779B97F4A7C15U ^
                         static_cast<std::uint64_t>(row) * 0xC2B2AE3D27D4EB4FU;
    bits = (bits ^ (bits >> 29U)) * 0xBF58476D1CE4E5B9U;
    bits ^= bits >> 32U;
    return static_cast<double>(bits >> 11U) * 0x1.0p-53;
}

double eased(double fraction) {
    return fraction * fraction * (3 - 2 * fraction);
}

double smoothNoise(double x, double y) {
    const double left = std::floor(x);
    const double top = std::floor(y);
    const double across = eased(x - left);
    const double down = eased(y - top);
    const auto column = static_cast<std::int64_t>(left);
    const auto row = static_cast<std::int64_t>(top);
    const double above =
        latticeValue(column, row) * (1 - across) + latticeValue(column + 1, row) * across;
    const double below =
        latticeValue(column, row + 1) * (1 - across) + latticeValue(column + 1, row + 1) * across;
    return above * (1 - down) + below * down;
}

/// @return from 0 to 1: five octaves, each half as large and half as strong as the one before
double cloud(double x, double y) {
    double sum = 0;
    double weight = 0.5;
    for (int octave = 0; octave < 5; octave++) {
        sum += weight * smoothNoise(x, y);
        weight /= 2;
        x *= 2;
        y *= 2;
    }
    return sum / (1 - 2 * weight);
}

/// Adds the colour at a point of the picture.
void addPoint(const Look& look, double x, double y, std::array<double, channelCount>& sum) {
    const auto squares = static_cast<std::int64_t>(std::floor(x / look.checker)) +
                         static_cast<std::int64_t>(std::floor(y / look.checker));
    const auto& color = squares % 2 == 0 ? look.light : look.dark;
    const double shade =
        look.noise == 0 ? 1 : 1 - look.noise * cloud(x / look.scale, y / look.scale);
    for (int channel = 0; channel < channelCount; channel++) {
        sum[channel] += color[channel] * shade;
    }
}

void shadePixel(const Look& look, int x, int y, unsigned char* pixel) {
    std::array<double, channelCount> sum = {};
    for (int row = 0; row < look.samples; row++) {
        for (int column = 0; column < look.samples; column++) {
            addPoint(look, x + (column + 0.5) / look.samples, y + (row + 0.5) / look.samples, sum);
        }
    }
    const int points = look.samples * look.samples;
    for (int channel = 0; channel < channelCount; channel++) {
        pixel[channel] = static_cast<unsigned char>(std::lrint(sum[channel] / points));
    }
}

void shade(const Tile& tile, const Look& look, unsigned char* pixel) {
    for (int y = tile.top; y < tile.bottom; y++) {
        for (int x = tile.left; x < tile.right; x++) {
            shadePixel(look, x, y, pixel);
            pixel += channelCount;
        }
    }
}

/// @return a number brought into the range, the lower end for what is none
double within(double value, double least, double most) {
    return value > least ? std::min(value, most) : least;
}

Look toLook(const std::array<double, channelCount>& color, double checker, double noise,
            double scale, double samples) {
    Look look = {};
    for (int channel = 0; channel < channelCount; channel++) {
        look.light[channel] = std::nearbyint(255 * within(color[channel], 0, 1));
        look.dark[channel] = std::floor(look.light[channel] / 2);
    }
    look.checker = static_cast<int>(within(checker, 1, 1 << 30));
    look.noise = within(noise, 0, 1);
    look.scale = within(scale, leastScale, 1e9);
    look.samples = static_cast<int>(within(samples, 1, mostSamples));
    return look;
}

PyObject* shadeTile(PyObject* /*module*/, PyObject* arguments) {
    Tile tile = {};
    std::array<double, channelCount> color = {};
    double checker = 0;
    double noise = 0;
    double scale = 0;
    double samples = 0;
    if (PyArg_ParseTuple(arguments, "(iiii)(ddd)dddd", &tile.left, &tile.top, &tile.right,
                         &tile.bottom, &color[0], &color[1], &color[2], &checker, &noise, &scale,
                         &samples) == 0) {
        return nullptr;
    }
    if (tile.left < 0 || tile.top < 0 || tile.right <= tile.left || tile.bottom <= tile.top) {
        PyErr_SetString(PyExc_ValueError, "a tile has a width and a height, and lies in a picture");
        return nullptr;
    }
    const std::size_t bytes = static_cast<std::size_t>(tile.right - tile.left) *
                              static_cast<std::size_t>(tile.bottom - tile.top) * channelCount;
    if (bytes > static_cast<std::size_t>(PY_SSIZE_T_MAX)) {
        return PyErr_NoMemory();
    }
    PyObject* const pixels = PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(bytes));
    if (pixels == nullptr) {
        return nullptr;
    }
    const Look look = toLook(color, checker, noise, scale, samples);
    auto* const first = reinterpret_cast<unsigned char*>(PyBytes_AS_STRING(pixels));
    Py_BEGIN_ALLOW_THREADS;
    shade(tile, look, first);
    Py_END_ALLOW_THREADS;
    return pixels;
}

PyMethodDef methods[] = {
    {"shadeTile", shadeTile, METH_VARARGS,
     "shadeTile((left, top, right, bottom), (red, green, blue), checker, noise, scale, samples)\n"
     "-> bytes: red, green, blue of each pixel, row by row: a colour over a checkerboard with\n"
     "squares of `checker` pixels, darkened by clouds of the strength `noise` (0 to 1) and the "
     "size\n"
     "`scale`, from samples x samples points a pixel. Numbers outside of what makes sense are\n"
     "brought into it. Other threads run meanwhile."},
    {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition =
    moduleOfFunctions("TileAPI_cmodule",
                      "The work of rendering, on as many processors as there are threads", methods);

}  // namespace

PyMODINIT_FUNC PyInit_TileAPI_cmodule() {
    return PyModule_Create(&definition);
}
