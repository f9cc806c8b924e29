#ifndef NNET_CONVOLUTION_CONVOLUTION_KERNELS_H_
#define NNET_CONVOLUTION_CONVOLUTION_KERNELS_H_

// Convolutions of planes with a 1 x 3 kernel over the feature axis. Positions of a plane are
// counted through, row after row, so that a vector may run over the end of a row. Vectors run
// across positions; every sum keeps its order and gives the same bits on every vector target.

#include <cstddef>

namespace tarev::nnet::handwriting_CTC {

/// Input planes are read in whole vectors: the room of a plane is a multiple of this many floats.
/// Output planes have no spare room.
inline constexpr size_t kPlaneGrain = 16;
constexpr size_t PlaneRoom(size_t positions) {
  return (positions + kPlaneGrain - 1) / kPlaneGrain * kPlaneGrain;
}

/// What both kernels read. The kernel holds three weights w for every output and input channel
/// (out_channels x in_channels x 3), the bias one value for every output channel; `positions` is
/// frames x width. Nothing is owned.
struct PlaneConvolution {
  const float* kernel;
  const float* bias;
  size_t in_channels;
  size_t out_channels;
  size_t positions;
};

/// Every position of an output plane is its bias plus, channel after channel,
///   ((a w0) + b w1) + c w2
/// with a, b, c the values at that position in the three stacks of in_channels input planes, which
/// have PlaneRoom(positions) floats each. `out` gets out_channels planes of `positions` floats.
void convolve_planes(const PlaneConvolution& shape, const float* a, const float* b, const float* c,
                     float* out);

/// Every position gives two: the first is the bias plus, channel after channel, x w1; to the
/// second, which starts from the bias too, each channel adds x w2, then y w0 where `has_next` is
/// not 0. x and y are the values at that position in two stacks of input planes, has_next is one
/// plane, all with PlaneRoom(positions) floats a plane. `out` gets out_channels planes of 2
/// positions floats.
void deconvolve_planes(const PlaneConvolution& shape, const float* x, const float* y,
                       const float* has_next, float* out);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONVOLUTION_CONVOLUTION_KERNELS_H_
