// Writes what a fuzzer begins with: a small input for every layer type and form, and a dictionary
// of markers, properties and type codes.
//
//   fuzz_seeds FOLDER    writes FOLDER/TARGET/NAME and FOLDER/TARGET.dict

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/fuzz/input.h"
#include "tests/support/layer-samples.h"
#include "tools/npy.h"

namespace {

using namespace handwriting::fuzz;   // NOLINT(google-build-using-namespace)
using namespace handwriting::tests;  // NOLINT(google-build-using-namespace)
namespace fs = std::filesystem;

void WriteFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  if (!file.flush()) throw std::runtime_error(path.string() + ": cannot be written");
}

// Three calls of 9, 3 and 20 frames of ordinary values, the last one marked.
std::string PlanFor(int dim, int channels) {
  return Bytes().Codes({dim, channels - 1, 9, 3, 20, 5, 1, 3}).str();
}

std::string Joined(const std::vector<Bytes>& layers) { return Network(layers).str(); }

void WriteModels(const fs::path& folder) {
  for (const Bytes& sample : SamplesOfAllForms()) {
    const Layer layer = ReadLayer(sample);
    const SampleInput input = InputOf(*layer);
    const int code = layer->GetType();
    char name[16];
    std::snprintf(name, sizeof(name), "%04x", static_cast<unsigned>(code));
    const std::vector<Bytes> layers = WithRegisters(code, sample);
    WriteFile(folder / "network" / name, PlanFor(input.dim, input.channels) + Joined(layers));

    // Once as the first network and once as the second, beside one that takes and gives rows.
    const auto row_of = [](int in, int out) {
      return Affine(in, out, Floats(static_cast<size_t>(out)), Ramp(in * out));
    };
    const int out = std::max(layer->OutputDim(), 1);
    std::vector<Bytes> second = {row_of(2, input.dim)};
    second.insert(second.end(), layers.begin(), layers.end());
    WriteFile(folder / "recognizer" / (name + std::string("-first")),
              PlanFor(input.dim, 1) + Joined(layers) + Joined({row_of(out, 4)}));
    WriteFile(folder / "recognizer" / (name + std::string("-second")),
              PlanFor(3, 1) + Joined({row_of(3, 2)}) + Joined(second));
    WriteFile(folder / "text" / (name + std::string("-binary")), Joined(layers));
  }
}

// Layers wide enough for the vector code that the small samples do not reach.
void WriteWide(const fs::path& folder) {
  const auto window = [] { return Bytes().Ints({3, 1, 1, 1}); };
  const std::pair<const char*, Bytes> layers[] = {
      {"wide", Affine(60, 70, Ramp(70), Ramp(60 * 70))},
      {"wide-rows", Component1d(0x307, 16, 40, window().Ints({1, 1, 1}).Floats(Ramp(1960)))},
      {"wide-columns", Component1d(0x307, 40, 40, window().Ints({1, 40, 0}).Floats(Ramp(120)))},
      {"wide-codes", Bytes(FixedWrittenBy(*ReadLayer(Affine(200, 3, Ramp(3), Ramp(600)))))},
      {"wide-memory", Component1d(0x107, 40, 40, Bytes().Ints({1, 1, 1, 0}).Floats(Ramp(120)))},
      {"wide-softmax", Component1d(0x201, 120, 120)},
      {"wide-norm", Component1d(0x406, 40, 40, Bytes().Int(40).Float(1).Floats(Ramp(80)))}};
  for (const auto& [name, layer] : layers) {
    WriteFile(folder / "network" / name,
              PlanFor(ReadLayer(layer)->InputDim(), 1) + Joined({layer}));
  }
  // Sums and pools over more frames than a short call has.
  const Bytes padding = Component1d(0x708, 2, 2, Bytes().Ints({150, 150}).Float(0.5F));
  const Bytes sums = Component1d(0x601, 2, 5, Bytes().Ints({1, 200}).Byte(1));
  const Bytes pools = Component1d(0x602, 5, 5, Bytes().Ints({1, 90, 90, 1}).Byte(1).Float(0.5F));
  WriteFile(folder / "network" / "long-sums", PlanFor(2, 1) + Joined({padding, sums, pools}));
}

std::string TextLayer(const LayerSample& sample) {
  return "<" + sample.name + "> " + sample.text + "\n";
}

void WriteTexts(const fs::path& folder, std::set<std::string>& words) {
  for (const LayerSample& sample : kLayerSamples) {
    words.insert("<" + sample.name + ">");
    for (size_t begin = 0; (begin = sample.text.find('<', begin)) != std::string::npos; ++begin) {
      words.insert(sample.text.substr(begin, sample.text.find('>', begin) + 1 - begin));
    }
    if (sample.text.empty()) continue;
    WriteFile(folder / "text" / sample.name, "<Nnet>\n" + TextLayer(sample) + "</Nnet>\n");
  }
}

std::string Quoted(const std::string& bytes) {
  std::string quoted = "\"";
  for (const char c : bytes) {
    char text[8];
    std::snprintf(text, sizeof(text), "\\x%02x", static_cast<unsigned char>(c));
    quoted += text;
  }
  return quoted + "\"\n";
}

void WriteDictionaries(const fs::path& folder, const std::set<std::string>& words) {
  std::string codes;
  for (const LayerSample& sample : kLayerSamples) {
    for (const int code : {sample.code, sample.fixed_code}) {
      codes += Quoted(Bytes().Int(code).str());
    }
  }
  for (const char* target : {"recognizer", "network"}) {
    WriteFile(folder / (std::string(target) + ".dict"), codes);
  }
  std::string quoted;
  for (const std::string& word : words) quoted += Quoted(word);
  WriteFile(folder / "text.dict", quoted);
  quoted.clear();
  for (const char* word : {"\x93NUMPY", "'descr': ", "'fortran_order': ", "'shape': ", "'<f4'",
                           "True", "False", "(", ",)", ", }", "0", "18446744073709551616"}) {
    quoted += Quoted(word);
  }
  WriteFile(folder / "npy.dict", quoted);
  quoted.clear();
  for (const float value : {0.0F, -0.0F, 1.0F, 1e-42F, 3e38F, HUGE_VALF, NAN, 87.33F, -88.03F}) {
    quoted += Quoted(Bytes().Float(value).str());
  }
  WriteFile(folder / "kernels.dict", quoted);
}

void WriteMatrices(const fs::path& folder) {
  fs::create_directories(folder / "npy");
  const std::vector<std::vector<size_t>> shapes = {{2, 3}, {1, 2, 3}, {0, 4}, {3, 0, 2}};
  for (const auto& shape : shapes) {
    size_t count = 1;
    std::string name;
    for (const size_t length : shape) {
      count *= length;
      name += "x" + std::to_string(length);
    }
    handwriting::tools::WriteNpy(folder / "npy" / name, {shape, Ramp(static_cast<int>(count))});
  }
}

// Calls of the kernels: every kind over shapes that are empty, small, and wider than any vector.
void WriteCalls(const fs::path& folder) {
  constexpr int kKinds = 7;
  constexpr int kShapes[][4] = {{0, 0, 0, 0},   {1, 1, 1, 0},     {3, 17, 4, 2},
                                {9, 40, 33, 0}, {17, 149, 70, 1}, {2, 3, 255, 0}};
  for (int kind = 0; kind < kKinds; ++kind) {
    for (const auto& [rows, cols, inner, gap] : kShapes) {
      for (int form = 0; form < 8; ++form) {
        WriteFile(
            folder / "kernels" /
                (std::to_string(kind) + "-" + std::to_string(form) + "-" + std::to_string(rows)),
            Bytes().Codes({kind, rows, cols, inner, gap, 3 + form, 1 + form / 4, form}).str());
      }
    }
  }
  // Arrays made, grown, moved and dropped, in an arena and without one.
  Bytes steps;
  steps.Codes({kKinds - 1, 255, 100, 255, 0, 0, 1, 0});
  for (int step = 0; step < 64; ++step) steps.Codes({step * 37 % 256});
  WriteFile(folder / "kernels" / "arrays", steps.str());
}

// Requests to the service, of all kinds of bodies and routes, one behind another.
void WriteRequests(const fs::path& folder) {
  const auto post = [](const std::string& path, const std::string& fields,
                       const std::string& body) {
    return "POST " + path + " HTTP/1.1\r\nHost: localhost\r\n" + fields +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  };
  const std::string json = R"({"features": [[0, 9.5, 0], [0, 0, 1e1]]})";
  const std::string json_type = "Content-Type: application/json\r\n";
  handwriting::tools::WriteNpy(folder / "features", {{3, 3}, Ramp(9)});
  std::ifstream file(folder / "features", std::ios::binary);
  const std::string npy{std::istreambuf_iterator<char>(file), {}};
  fs::remove(folder / "features");
  const std::string chunked =
      "POST /recognize HTTP/1.1\r\nHost: localhost:80\r\nTransfer-Encoding: chunked\r\n" +
      json_type + "Expect: 100-continue\r\nOrigin: http://localhost:80\r\n\r\n" + "10;x=y\r\n" +
      json.substr(0, 16) + "\r\n18\r\n" + json.substr(16) + "\r\n0\r\n\r\n";
  std::string gets;
  for (const char* path : {"/health", "/ready", "/model", "/metrics", "/", "/%2e%2e/x", "/a?b"}) {
    gets += "GET " + std::string(path) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  }
  const std::pair<const char*, std::string> requests[] = {
      {"json", post("/recognize?detail=1", json_type, json)},
      {"npy", post("/recognize", "Content-Type: application/octet-stream\r\n", npy)},
      {"several", post("/recognize", "", npy) + gets},
      {"chunked", chunked},
      {"old", "HEAD /health HTTP/1.0\r\nHost: localhost\r\nConnection: close\r\n\r\n"}};
  for (const auto& [name, request] : requests) {
    WriteFile(folder / "request" / name, "\x07" + request);
  }
  std::string words;
  for (const char* word :
       {"GET ", "POST ", "/recognize", "?detail=1", " HTTP/1.1\r\n",
        "Host: ", "Content-Length: ", "Transfer-Encoding: chunked\r\n",
        "Origin: ", "Content-Type: ", "application/json", "\r\n\r\n", "\"features\"", "[["}) {
    words += Quoted(word);
  }
  WriteFile(folder / "request.dict", words);
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what cannot be written ends it, with the reason
int main(int count, char** arguments) {
  if (count != 2) return std::fprintf(stderr, "usage: fuzz_seeds FOLDER\n"), 2;
  std::set<std::string> words = {"<Nnet>", "</Nnet>", "[ ", " ]", "\n"};
  WriteModels(arguments[1]);
  WriteWide(arguments[1]);
  WriteTexts(arguments[1], words);
  WriteDictionaries(arguments[1], words);
  WriteMatrices(arguments[1]);
  WriteCalls(arguments[1]);
  WriteRequests(arguments[1]);
  return 0;
}
