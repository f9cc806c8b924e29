/* A host in plain C that knows nothing but the installed copy.
 *
 * usage: consumer [MODEL]    MODEL: a model for frames of 8 features
 */
#include <handwriting_forward.h>
#include <stdio.h>

enum { kFrames = 20, kFeatures = 8, kBest = 4 };

static int fail(const char* what) {
  fprintf(stderr, "consumer: %s\n", what);
  return 1;
}

static int recognize(void* recognizer) {
  static float features[kFrames * kFeatures];
  int labels[kBest * kFrames];
  int lengths[kBest];
  const int count =
      handwriting_forward_process(recognizer, features, kFrames, kFeatures, labels, lengths);
  if (count < 1 || count > kBest) return fail("no sequence for a valid input");
  for (int i = 0; i < count; ++i) {
    if (lengths[i] < 0 || lengths[i] > kFrames) return fail("a length that no input can have");
  }
  if (handwriting_forward_process(recognizer, NULL, kFrames, kFeatures, labels, lengths) != -1) {
    return fail("processed features that are null");
  }
  return 0;
}

int main(int argc, char** argv) {
  if (handwriting_forward_create(NULL, kFrames, kBest) != NULL) {
    return fail("created a recognizer without a model");
  }
  handwriting_forward_destory(NULL);
  if (argc < 2) return 0;

  FILE* model = fopen(argv[1], "rb");
  if (model == NULL) return fail("cannot open the model");
  void* recognizer = handwriting_forward_create(model, kFrames, kBest);
  fclose(model);
  if (recognizer == NULL) return fail("the model was refused");
  const int status = recognize(recognizer);
  handwriting_forward_destory(recognizer);
  return status;
}
