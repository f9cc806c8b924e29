/* handwriting_forward.h - recognize handwriting from per-frame features.
 *
 * Conventions
 *
 * 1. A recognizer is an opaque pointer. handwriting_forward_create makes it, the caller owns it,
 *    and handwriting_forward_destory (spelled so) releases it.
 * 2. A model file holds two networks back to back. The stream stays the caller's: it is read while
 *    a recognizer is created and may be closed right afterwards.
 * 3. Features are a row-major matrix of 32-bit floats, one row per frame. How many values a row
 *    holds, and what they mean, is the model's affair.
 * 4. Labels are class indices of the second network's output. Class 0 is the CTC blank and never
 *    appears in a result.
 * 5. A function that fails returns NULL or -1 and prints one line to standard error, also when
 *    memory has run out. It never throws, exits or aborts; a recognizer remains usable. What fails
 *    at run time is logged as well, through Loguru (verbosity -1), one line before the other; a
 *    host silences that line through Loguru's own settings. The line is dropped when there is no
 *    memory for it. Loguru ends a process to which memory is refused within a line; of that there
 *    remains the moment in which another thread takes the last 32 KiB. An executable that
 *    defines Loguru's symbols is called in the place of the library's copy.
 * 6. One recognizer is used by one thread at a time; different recognizers may run on different
 *    threads. The library starts no threads, takes no locks of its own, and changes no setting of
 *    the process; a BLAS library of the host is neither used nor seen.
 * 7. The same model and features give the same result on every processor with fused multiply-add
 *    (AVX2 or AVX-512). Without it, scores may differ in their last bits, and with them the order
 *    of sequences whose scores are about equal.
 *
 * Example: the best label sequence of a matrix of 100 frames of 8 features.
 *
 *    #include <handwriting_forward.h>
 *    #include <stdio.h>
 *    #include <stdlib.h>
 *
 *    int main(void) {
 *      enum { kFrames = 100, kDim = 8, kBest = 5 };
 *      static float features[kFrames * kDim];
 *      int len[kBest];
 *      int* labels = malloc(sizeof(int) * kBest * kFrames);
 *      FILE* model = fopen("model.bin", "rb");
 *      void* recognizer = model ? handwriting_forward_create(model, kFrames, kBest) : NULL;
 *      if (model) fclose(model);
 *      if (recognizer && labels) {
 *        int n = handwriting_forward_process(recognizer, features, kFrames, kDim, labels, len);
 *        for (int i = 0; n > 0 && i < len[0]; ++i) printf("%d ", labels[i]);
 *      }
 *      handwriting_forward_destory(recognizer);
 *      free(labels);
 *      return 0;
 *    }
 */
#ifndef HANDWRITING_FORWARD_H_
#define HANDWRITING_FORWARD_H_

#include <stdio.h>

#if defined(__GNUC__)
#define HANDWRITING_FORWARD_API __attribute__((visibility("default")))
#else
#define HANDWRITING_FORWARD_API
#endif

#if defined(__cplusplus) && __cplusplus >= 201103L
#define HANDWRITING_FORWARD_NOEXCEPT noexcept
#else
#define HANDWRITING_FORWARD_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a recognizer from an open model file.
 *
 * fp             a binary model, positioned at its first network; must be seekable. On success it
 *                stands just after the second network; on failure anywhere.
 * max_frame_num  > 0; the number of frames that memory is prepared for, a hint. Longer inputs work
 *                too, the first of them at the price of growing the buffers.
 * nbest          > 0; how many label paths the search keeps and how many labels it tries per frame,
 *                at most the number of classes. It bounds the number of sequences in a result.
 *
 * Returns the recognizer, or NULL when an argument is out of range, the file does not hold two
 * networks that this library can run, or memory runs out. A damaged or hostile file is refused, not
 * trusted. */
HANDWRITING_FORWARD_API void* handwriting_forward_create(FILE* fp, int max_frame_num,
                                                         int nbest) HANDWRITING_FORWARD_NOEXCEPT;

/* Recognizes one input.
 *
 * instance   a recognizer of handwriting_forward_create.
 * feature    frame_num x input_dim floats, row after row. A model that begins with layers which
 *            work in place changes these values; the memory must therefore be writable.
 * frame_num  > 0; number of rows.
 * input_dim  > 0; values per row, what the first network expects.
 * output     receives the label sequences back to back, best first, without separators. Room for
 *            nbest x frame_num ints is always enough: no sequence is longer than the input.
 * len        receives the length of each sequence; room for nbest ints.
 *
 * Returns the number of sequences R, 0 <= R <= nbest, or -1 on failure; output and len then hold
 * nothing of meaning. A sequence may be empty (length 0). No result depends on an earlier input. */
HANDWRITING_FORWARD_API int handwriting_forward_process(void* instance, const float* feature,
                                                        int frame_num, int input_dim, int* output,
                                                        int* len) HANDWRITING_FORWARD_NOEXCEPT;

/* Releases a recognizer and everything it owns. NULL is ignored. */
HANDWRITING_FORWARD_API void handwriting_forward_destory(void* instance)
    HANDWRITING_FORWARD_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* HANDWRITING_FORWARD_H_ */
