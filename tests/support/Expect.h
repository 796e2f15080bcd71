#pragma once

#include <cstdint>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include "common/OVRAException.h"

namespace vidapp::test {

// call must throw exactly Exception (not another member of the family) with that code and text.
template <typename Exception, typename Call>
void expectFailure(Call&& call, std::uint32_t code, const std::string& text) {
    try {
        call();
        ADD_FAILURE() << "no exception; expected " << code << " \"" << text << "\"";
    } catch (const OVRAException& e) {
        EXPECT_EQ(typeid(e), typeid(Exception)) << typeid(e).name();
        EXPECT_EQ(e.getCode(), code);
        EXPECT_EQ(std::string(e.what()), text);
    }
}

// "<code> <text>" of the Exception that call throws, or "none".
template <typename Exception, typename Call> std::string failureOf(Call&& call) {
    try {
        call();
    } catch (const Exception& e) {
        return std::to_string(e.getCode()) + " " + e.what();
    }
    return "none";
}

} // namespace vidapp::test
