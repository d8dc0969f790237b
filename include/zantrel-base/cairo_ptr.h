// cairo surfaces and drawing contexts released with their owner. Header-only:
// whoever includes it links cairo.
#pragma once

#include <cairo.h>

#include <memory>

namespace zantrel {

struct CairoDeleter {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  void operator()(cairo_t* cr) const { cairo_destroy(cr); }
};
using CairoSurfacePtr = std::unique_ptr<cairo_surface_t, CairoDeleter>;
using CairoPtr = std::unique_ptr<cairo_t, CairoDeleter>;

}  // namespace zantrel
