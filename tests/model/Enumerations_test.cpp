#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Orb/Exception.h"
#include "Retra/model/Enumerations.h"

namespace {

using namespace Retra;

// Every enumerator's name reads back to its own number, through both instance functions.
template <class E, class ByNumber, class ByName>
void expectNamesRoundTrip(ByNumber byNumber, ByName byName) {
  for (const auto& e : descriptorOf(E{}).enumerators()) {
    E value = byNumber(e.value);
    EXPECT_EQ(stringValue(value), Orb::String(e.name));
    EXPECT_EQ(byName(stringValue(value)), value);
  }
}

TEST(EnumerationsTest, NumbersAndNamesAreTheFixedOnes) {
  EXPECT_EQ(OPTIONS, 0u);
  EXPECT_EQ(PATCH, 8u);
  EXPECT_EQ(errCurlOther, 15u);
  EXPECT_EQ(stateFinished, 9u);
  EXPECT_EQ(authDigest, 2u);
  EXPECT_EQ(https, 1u);
  EXPECT_EQ(stringValue(Error(15)), "errCurlOther");
  EXPECT_EQ(stringValue(MethodInstance(5)), "DELETE");
  EXPECT_EQ(MethodInstance(Orb::String("PUT")), PUT);
  EXPECT_EQ(RequestStateInstance(Orb::String("stateRecvBody")), stateRecvBody);
  EXPECT_EQ(valueToStrep(authBasic), "authBasic");
  EXPECT_EQ(descriptorOf(Method{}).enumerators().size(), 9u);
  EXPECT_EQ(descriptorOf(Error{}).enumerators().size(), 16u);
  EXPECT_EQ(descriptorOf(RequestState{}).enumerators().size(), 10u);
  EXPECT_EQ(descriptorOf(HttpAuthenticationType{}).enumerators().size(), 3u);
  EXPECT_EQ(descriptorOf(Scheme{}).enumerators().size(), 2u);

  expectNamesRoundTrip<Method>([](unsigned v) { return MethodInstance(v); },
                               [](const Orb::String& n) { return MethodInstance(n); });
  expectNamesRoundTrip<Error>([](unsigned v) { return ErrorInstance(v); },
                              [](const Orb::String& n) { return ErrorInstance(n); });
  expectNamesRoundTrip<RequestState>([](unsigned v) { return RequestStateInstance(v); },
                                     [](const Orb::String& n) { return RequestStateInstance(n); });
  expectNamesRoundTrip<HttpAuthenticationType>(
      [](unsigned v) { return HttpAuthenticationTypeInstance(v); },
      [](const Orb::String& n) { return HttpAuthenticationTypeInstance(n); });
  expectNamesRoundTrip<Scheme>([](unsigned v) { return SchemeInstance(v); },
                               [](const Orb::String& n) { return SchemeInstance(n); });
}

TEST(EnumerationsTest, StreamsWriteTheName) {
  std::ostringstream out;
  out << GET << ' ' << errTimeout << ' ' << stateDispatchReady << ' ' << authNone << ' ' << https;
  EXPECT_EQ(out.str(), "GET errTimeout stateDispatchReady authNone https");
}

TEST(EnumerationsTest, NumbersAndNamesOutsideTheTableAreOutOfRange) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW((void)ErrorInstance(16), Orb::RangeException);
  EXPECT_THROW((void)MethodInstance(9), Orb::RangeException);
  EXPECT_THROW((void)SchemeInstance(2), Orb::RangeException);
  EXPECT_THROW((void)MethodInstance(Orb::String("get")), Orb::RangeException);
  EXPECT_THROW((void)RequestStateInstance(Orb::String("")), Orb::RangeException);
  EXPECT_THROW((void)stringValue(Error(99)), Orb::RangeException);
}

TEST(EnumerationsTest, SequenceToValueReadsOneNameAndStopsAfterIt) {
  Orb::String text("errCurlRemoveHandle, 'uri'");
  Orb::String::const_iterator it = text.begin();
  Error error = errNone;
  sequenceToValue(it, text.end(), &error);
  EXPECT_EQ(error, errCurlRemoveHandle);
  EXPECT_EQ(std::string(it, text.end()), ", 'uri'");

  Orb::String bad("FETCH");
  it = bad.begin();
  Method method = GET;
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW(sequenceToValue(it, bad.end(), &method), Orb::RangeException);
  EXPECT_EQ(method, GET);
}

}  // namespace
