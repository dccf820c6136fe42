#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Orb/Exception.h"

// Checks shared by the address types' tests.
namespace IpkitTest {

// Each text is refused: the constructor raises the range exception naming the type and the text,
// and parse() answers false and leaves its output alone.
template <class Address>
void expectRejected(std::initializer_list<std::string_view> texts, const std::string& typeName) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  for (std::string_view text : texts) {
    try {
      ADD_FAILURE() << "accepted \"" << text << "\" as " << Address(text);
    } catch (const Orb::RangeException& e) {
      const std::string what = e.what();
      EXPECT_NE(what.find(typeName + ": "), std::string::npos) << what;
      EXPECT_NE(what.find(text.substr(0, text.find('\0'))), std::string::npos) << what;
    }
    Address untouched = Address::loopback();
    EXPECT_FALSE(Address::parse(text, &untouched)) << text;
    EXPECT_EQ(untouched, Address::loopback());
  }
}

// The addresses are in strictly increasing order by both comparisons, and hash apart.
template <class Address>
void expectIncreasing(const std::vector<Address>& sorted) {
  std::unordered_set<size_t> hashes;
  for (size_t i = 0; i < sorted.size(); ++i) {
    hashes.insert(std::hash<Address>()(sorted[i]));
    if (i == 0) continue;
    EXPECT_TRUE(sorted[i - 1] < sorted[i] && !(sorted[i] < sorted[i - 1])) << sorted[i];
    EXPECT_TRUE((sorted[i - 1] <=> sorted[i]) < 0) << sorted[i];
  }
  EXPECT_EQ(hashes.size(), sorted.size());
}

}  // namespace IpkitTest
