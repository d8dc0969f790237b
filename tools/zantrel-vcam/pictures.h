// The pictures of a run: single frames composed by the simulated driver and
// a contact sheet of all of them.
#pragma once

#include <string>
#include <vector>

#include "options.h"
#include "timeline.h"
#include "zantrel.h"

namespace vcam {

// "stream0-1920x1080-t01.500s.png"
std::string picture_name(size_t stream, StreamSize size, const Capture& capture);
inline constexpr char kContactSheetName[] = "contact-sheet.png";

// The request's 8 overlays over the simulator's test picture; the number
// of overlays drawn, or -1.
int compose_picture(const overlay_encreq& request, StreamSize size, const std::string& path);

// One row a stream, one column a capture, labelled; cells whose picture is
// missing stay empty. false when nothing could be written.
bool write_contact_sheet(const std::string& out_dir, const std::vector<StreamSize>& streams,
                         const std::vector<Capture>& captures, int change_frame);

}  // namespace vcam
