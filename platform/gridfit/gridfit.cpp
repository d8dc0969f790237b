// The conversion lands in the next change; until then every call fails, as a
// missing bitmap would, so the library's callers can already link.
#include "gridfit.h"

// The header's declaration carries no exception specification, so the
// definition cannot say noexcept; nothing in it throws.
extern "C" GRIDFIT_API int gridfit_convert(char* path, int channel, int* out1, int* out2,
                                           int stream_height, int stream_width) {
  (void)path;
  (void)channel;
  (void)out1;
  (void)out2;
  (void)stream_height;
  (void)stream_width;
  return -1;
}
