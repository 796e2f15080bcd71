# One list of warnings for every target of the project.
add_library(vidapp_warnings INTERFACE)
# -Wno-format-truncation: the system formats into fixed buffers and cuts long texts on purpose
# (1024-byte messages, 128-byte error texts); every such call is bounded.
target_compile_options(vidapp_warnings INTERFACE -Wall -Wextra -Werror -Wshadow -Wno-format-truncation)
