#ifndef BENCH_SAMPLE_LAYERS_H_
#define BENCH_SAMPLE_LAYERS_H_

// Layers of random weights as blocks of a model file.

#include "tests/support/model-builder.h"
#include "utils/half-float.h"

namespace handwriting::bench {

inline size_t Size(int n) { return static_cast<size_t>(n); }

inline tests::Bytes AffineLayer(int inputs, int outputs) {
  return tests::Affine(inputs, outputs, tests::Random(Size(outputs), 1),
                       tests::Random(Size(inputs) * Size(outputs), 2));
}

// One direction of a recurrent layer. A projection halves the cells.
enum class Cell { kLstm, kProjected, kGru };

struct Direction {
  Direction(Cell cell, int cells, int inputs)
      : outputs(cell == Cell::kProjected ? cells / 2 : cells),
        gates((cell == Cell::kGru ? 3 : 4) * cells),
        input(tests::Random(Size(gates) * Size(inputs), 1, 0.1F)),
        recurrent(tests::Random(Size(gates) * Size(outputs), 2, 0.1F)),
        input_bias(tests::Random(Size(gates), 3)),
        recurrent_bias(tests::Random(Size(gates), 4)),
        peepholes(tests::Random(3 * Size(cells), 5)),
        projection(tests::Random(Size(outputs) * Size(cells), 6, 0.1F)),
        projection_bias(tests::Random(Size(outputs), 7)) {}

  int outputs, gates;
  tests::Floats input, recurrent, input_bias, recurrent_bias, peepholes, projection,
      projection_bias;
};

inline tests::Bytes LstmLayer(int cells) {
  const Direction d(Cell::kLstm, cells, cells);
  return tests::Component1d(0x103, cells, cells,
                            tests::Bytes()
                                .Floats(d.input)
                                .Floats(d.recurrent)
                                .Floats(d.input_bias)
                                .Floats(d.recurrent_bias));
}

inline tests::Bytes BlstmLayer(int inputs, int cells) {
  const Direction d(Cell::kLstm, cells, inputs);
  tests::Bytes block = tests::Bytes().Int(cells);
  for (int direction = 0; direction < 2; ++direction) {
    for (const tests::Floats* array : {&d.input, &d.recurrent, &d.input_bias, &d.recurrent_bias}) {
      for (const float x : *array) block.Raw(tarev::nnet::handwriting_CTC::FloatToHalf(x));
    }
  }
  return tests::Component1d(0x10e, inputs, 2 * cells, block);
}

inline tests::Bytes ProjectedLayer(int cells) {
  const Direction d(Cell::kProjected, cells, cells);
  return tests::Component1d(0x106, cells, d.outputs,
                            tests::Bytes()
                                .Int(cells)
                                .Floats(d.input)
                                .Floats(d.recurrent)
                                .Floats(d.input_bias)
                                .Floats(d.peepholes)
                                .Floats(d.projection)
                                .Floats(d.projection_bias));
}

inline tests::Bytes GruLayer(int cells) {
  const Direction d(Cell::kGru, cells, cells);
  return tests::Component1d(0x10d, cells, cells,
                            tests::Bytes()
                                .Int(cells)
                                .Floats(d.input)
                                .Floats(d.recurrent)
                                .Floats(d.input_bias)
                                .Floats(d.recurrent_bias));
}

}  // namespace handwriting::bench

#endif  // BENCH_SAMPLE_LAYERS_H_
