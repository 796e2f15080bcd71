if(VIDAPP_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
elseif(VIDAPP_SANITIZER STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT VIDAPP_SANITIZER STREQUAL "")
    message(FATAL_ERROR "VIDAPP_SANITIZER must be '', 'address' or 'thread'")
endif()

# The fuzz build: every project source carries libFuzzer's coverage instrumentation together with
# AddressSanitizer and UndefinedBehaviorSanitizer; only the targets in fuzz/ link the fuzzer itself.
if(VIDAPP_BUILD_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "VIDAPP_BUILD_FUZZ needs clang (CC=clang CXX=clang++), not ${CMAKE_CXX_COMPILER_ID}")
    endif()
    if(NOT VIDAPP_SANITIZER STREQUAL "")
        message(FATAL_ERROR "VIDAPP_BUILD_FUZZ brings its own sanitizers: leave VIDAPP_SANITIZER empty")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
    # clang warns where g++ does not: this build keeps -Wall -Wextra -Wshadow but drops -Werror, so
    # the g++ builds stay the gate and this one only reports. clang 14 has no format-truncation
    # warning to switch off.
    get_target_property(vidapp_warning_options vidapp_warnings INTERFACE_COMPILE_OPTIONS)
    list(REMOVE_ITEM vidapp_warning_options -Werror -Wno-format-truncation)
    set_target_properties(vidapp_warnings PROPERTIES INTERFACE_COMPILE_OPTIONS "${vidapp_warning_options}")
endif()
