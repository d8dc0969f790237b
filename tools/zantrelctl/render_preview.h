// zantrelctl render-text: renders a text as an overlay would show it and
// writes the result, palette decoded, as a PNG.
#pragma once

namespace zantrelctl {

int render_text_command(int argc, char** argv);

}  // namespace zantrelctl
