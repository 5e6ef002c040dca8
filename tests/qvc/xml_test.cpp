#include "qvc/ByteArray.h"
#include "qvc/xml/Attribute.h"
#include "qvc/xml/Canonicalizer.h"
#include "qvc/xml/Document.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/Parser.h"
#include "qvc/xml/QName.h"
#include "qvc/xml/XPath.h"
#include "qvc/xsd/XSDateTime.h"
#include "qvc/xsd/XSDuration.h"
#include "tests/qvc/CapturedLog.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qvc;
using namespace qvc::xml;
using namespace qvc::xsd;
using qvc::debug::CapturedLog;
using testing::StartsWith;

std::string repeated(int times, const std::string& text) {
  std::string result;
  for (int i = 0; i < times; ++i)
    result += text;
  return result;
}

Element parsed(const std::string& text) {
  Element root;
  EXPECT_EQ(Parser::parse(FastString(text), root), qvc_Success) << text;
  return root;
}

Element fragment(const std::string& text) {
  Element root;
  EXPECT_EQ(Parser::parseFragment(root, text.data(), text.size(), nullptr), qvc_Success) << text;
  return root;
}

TEST(XmlNames, SplitOnlyWithANamespaceAndCompareWithoutPrefix) {
  EXPECT_EQ(QName("p:a").getLocalName(), "p:a");
  EXPECT_EQ(QName::create("p:a", "").getLocalName(), "p:a");
  const QName split = QName::create("p:a:b", "urn:x");
  EXPECT_EQ(std::tuple(split.getPrefix(), split.getLocalName(), split.getQualifiedName()),
            std::tuple("p", "a:b", "p:a:b"));
  EXPECT_EQ(split, QName("q:a:b", "urn:x"));
  EXPECT_NE(split, QName("p:a:b", "urn:y"));
}

TEST(XmlParser, ElementsTextAndWhatIsLeftOut) {
  const Element empty = parsed("<a/>");
  ASSERT_EQ(empty.children().size(), 1u);
  EXPECT_EQ(empty.children()[0].getType(), Element::Type::Text);

  const Element mixed = parsed("<a>x<b>y</b><!-- c -->z<?p i?>z<![CDATA[!]]></a>");
  ASSERT_EQ(mixed.getChildElements().size(), 4u) << "a comment parts the text in two";
  EXPECT_EQ(mixed.children()[1].getParent().getLocalName(), "a");
  EXPECT_EQ(parsed("<a>x<b>y</b>z</a>").getChildElements().size(), 3u);
  EXPECT_THAT(std::vector({empty.getValue(), mixed.getValue(), parsed("<a><![CDATA[<only>]]></a>").getValue(),
                           parsed("<!DOCTYPE a [<!ENTITY e 'x&amp;y'>]><a b='1&e;2'>&e;</a>").getValue()}),
              testing::ElementsAre("", "xyzz", "<only>", "x&y"));
  EXPECT_EQ(parsed("<!DOCTYPE a [<!ENTITY e 'xy'>]><a b='1&e;2'/>").getAttributeValue("b", ""), "1xy2");
}

std::string described(const Element& element) {
  if (element.getType() == Element::Type::Text)
    return "'" + element.getValue().toStdString() + "'";
  const auto named = [](const FastString& name, const FastString& space) {
    return name.toStdString() + "{" + space.toStdString() + "}";
  };
  std::string text = "<" + named(element.getQualifiedName(), element.getNamespaceURI());
  for (const Attribute& attribute : element.attributes())
    text += " " + named(attribute.getName().getQualifiedName(), attribute.getName().getNamespaceURI()) + "=" +
            attribute.getValue().toStdString();
  for (const Element& child : element.children())
    text += described(child);
  return text + ">";
}

TEST(XmlParser, ADocumentTypeChangesHowADocumentIsReadButNotItsTree) {
  CapturedLog log;
  const std::string deep = repeated(256, "<a>") + repeated(256, "</a>");
  const std::string lines = repeated(140'000, "a line of a text that comes in many pieces\n");
  for (const std::string& text : std::vector<std::string>{
           "<a/>", "<a><![CDATA[x]]><!-- c --><![CDATA[y]]></a>", "<a>x<![CDATA[]]>y<b/><![CDATA[z]]></a>",
           "<a><![CDATA[x]]><b/></a>",
           "<a v='a&amp;b&lt;&#38;#38; &#10;\n\t'>a&amp;b&#x26;lt;<?p i?>&quot;</a>",
           "<q:a q:b='1' xml:lang='en' b=''><xml:c xmlns='urn:d'/></q:a>",
           "<a xmlns='u' xmlns:p='v' p:x='1'><p:b/><b xmlns=''/><p:b:c xmlns:p='w' p:y='2'/></a>",
           "<a xmlns:p=''><p:b/><:c d:='1'/></a>", "<a>&undeclared;</a>", "<a b='1' b='2'/>", "<a/>more",
           deep, "<a>" + deep + "</a>", "<a>" + lines + "<b/></a>", "<a>" + lines + lines + "</a>"}) {
    Element direct, throughTree;
    EXPECT_EQ(Parser::parse(FastString(text), direct),
              Parser::parse(FastString("<!DOCTYPE a>" + text), throughTree))
        << text.substr(0, 100);
    EXPECT_EQ(described(direct), described(throughTree)) << text.substr(0, 100);
  }
}

TEST(XmlParser, NamespacesDecideLookUps) {
  const Element root =
      parsed("<r xmlns='urn:d' xmlns:p='urn:x'><S p:id='1' id='2'/><p:S><S/></p:S><q:S/></r>");
  const Element first = root.getFirstChildElement("S", "urn:d");
  EXPECT_EQ(std::tuple(first.getNamespacePrefix(), first.getNamespaceURI(),
                       first.getAttributeValue("id", "urn:x"), first.getAttributeValue("id", ""),
                       *first.findAttribute("id"), first.attributes()[0].getName().getQualifiedName()),
            std::tuple("", "urn:d", "1", "2", "2", "p:id"));
  EXPECT_FALSE(first.findAttribute("nope"));
  EXPECT_EQ(root.getAllChildElements("S").size(), 2u) << "direct children only, in any namespace";
  EXPECT_EQ(root.getChildElements("S", "urn:x").size(), 1u);
  EXPECT_TRUE(root.getFirstChildElement("S", "").isNull());
  EXPECT_EQ(root.getFirstChildElement("q:S").getQualifiedName(), "q:S")
      << "an undeclared prefix is part of the name";
}

TEST(XmlParser, FailuresAreLoggedAndLeaveTheOutputAlone) {
  CapturedLog log;
  Element out("kept");
  EXPECT_EQ(Parser::parse("", out), qvc_InvalidFormat);
  EXPECT_EQ(log.entries().back().message, "Cannot parse empty input");
  EXPECT_EQ(log.entries().back().file, "qvcXml");
  EXPECT_EQ(Parser::parse("<a><b></a>", out), qvc_InvalidFormat);
  EXPECT_EQ(log.entries().back().message, "Cannot parse XML [Premature end of data in tag a line 1]");
  EXPECT_EQ(Parser::parseFragment(out, "<a>", 3, nullptr), qvc_InvalidFormat);
  EXPECT_THAT(log.entries().back().message.toStdString(), StartsWith("Cannot parse fragment XML ["));
  EXPECT_EQ(out.getLocalName(), "kept");
}

TEST(XmlParser, FragmentsHaveSeveralRoots) {
  const Element root = fragment("<a>1</a>text<b/>");
  EXPECT_EQ(std::tuple(root.getLocalName(), root.children().size(), root.getValue()),
            std::tuple("Fragment", 3u, "1text"));
  std::string large;
  for (int i = 0; i < 20000; ++i)
    large += "<entry number='" + std::to_string(i) + "'>some text</entry>";
  EXPECT_EQ(fragment(large).children().size(), 20000u);
}

TEST(XmlParser, HostileDocumentsFetchNothingAndStaySmall) {
  CapturedLog log;
  const std::string secret = "<secret/>";
  char url[80];
  std::snprintf(url, sizeof(url), "mem://%p:%zu/", static_cast<const void*>(secret.data()), secret.size());
  for (const std::string& external :
       {std::string(url), std::string("file:///etc/passwd"), std::string("http://127.0.0.1:1/x")}) {
    Element root;
    Parser::parse(FastString("<!DOCTYPE a [<!ENTITY e SYSTEM \"" + external + "\">]><a>&e;</a>"), root);
    EXPECT_EQ(root.getValue(), "") << external;
  }

  std::string bomb = "<!DOCTYPE a [<!ENTITY e0 'lollollollol'>";
  for (int i = 1; i < 12; ++i)
    bomb += "<!ENTITY e" + std::to_string(i) + " '" + repeated(10, "&e" + std::to_string(i - 1) + ";") + "'>";
  const std::string quadratic = "<!DOCTYPE a [<!ENTITY e '" + std::string(1'000'000, 'x') + "'>]><a>" +
                                repeated(10000, "<b>&e;</b>") + "</a>";
  for (const std::string& text : {bomb + "]><a>&e11;</a>", bomb + "]><a b='&e11;'/>", quadratic,
                                  std::string(100000, '<'), repeated(100000, "<a>")}) {
    Element root;
    EXPECT_EQ(Parser::parse(FastString(text), root), qvc_InvalidFormat) << text.substr(0, 60);
    EXPECT_TRUE(root.isNull());
  }
}

TEST(XmlElement, NullIsSafe) {
  CapturedLog log;
  Element null;
  EXPECT_TRUE(null.isNull());
  EXPECT_EQ(null.getType(), Element::Type::Element);
  EXPECT_EQ(null.getQualifiedName(), "");
  EXPECT_EQ(null.getAttributeValue("a", "b"), "");
  EXPECT_TRUE(null.getChildElements().empty() && null.attributes().empty() && !null.hasChildren());
  EXPECT_TRUE(null.getParent().isNull() && null.getFirstChildElement("a").isNull() && null.copy().isNull());
  null.removeChild(0);
  null.detach();
  EXPECT_EQ(null.appendChild("text"), qvc_InvalidArguments);
  EXPECT_EQ(log.entries().back().message, "Empty element can not have children.");
  EXPECT_EQ(null.addAttribute(Attribute("a", "b")), qvc_InvalidArguments);
  EXPECT_EQ(log.entries().back().message, "Empty element can not have attributes.");
}

TEST(XmlElement, AChildDoesNotKeepItsParent) {
  std::optional<Document> document(parsed("<a>x<b i='1'><c>t</c></b></a>"));
  const Element inner = document->getRootElement().getFirstChildElement("b");
  const Element text = document->getRootElement().children()[0];
  EXPECT_EQ(text.getType(), Element::Type::Text);
  document.reset();
  EXPECT_TRUE(inner.getParent().isNull());
  EXPECT_EQ(text.getType(), Element::Type::Element) << "no living parent";
  EXPECT_EQ(text.getValue(), "x");
  EXPECT_EQ(inner.getValue(), "t");
  EXPECT_TRUE(inner.children()[0].getParent().isSameNode(inner));

  // What is left of a parsed tree can be taken apart and edited like any other, on any thread.
  Element first = inner.children()[0];
  first.detach();
  std::thread other([first]() mutable {
    for (int i = 0; i < 1000; ++i)
      first.appendChild("more text than fits into the node itself");
  });
  for (int i = 0; i < 1000; ++i)
    Element(inner).addAttribute(Attribute("name", "value"));
  other.join();
  EXPECT_EQ(inner.attributes().size(), 1001u);
  EXPECT_EQ(first.children().size(), 1001u);
}

TEST(XmlElement, HandlesMayBeDroppedFromManyThreadsAtOnce) {
  Element root = parsed("<a>" + repeated(300, "<b i='1'><c>t</c></b>") + "</a>");
  std::vector<std::jthread> threads;
  for (std::size_t offset = 0; offset < 3; ++offset) {
    std::vector<Element> held;
    for (std::size_t i = offset; i < root.children().size(); i += 3)
      held.push_back(root.children()[i].children()[0]);
    threads.emplace_back([held = std::move(held)]() mutable {
      for (; !held.empty(); held.pop_back()) {
        const Element parent = held.back().getParent();
        EXPECT_TRUE(parent.isNull() || parent.getLocalName() == "b");
        EXPECT_EQ(held.back().getValue(), "t");
      }
    });
  }
  root = Element();
}

TEST(XmlTools, CanonicalFormAndXPath) {
  const Element root =
      parsed("<p:a xmlns:p='urn:x' z='1' b='2'><p:b p:c='3'/><c xmlns='urn:y'><d xmlns=''/></c></p:a>");
  EXPECT_EQ(
      Canonicalizer(Canonicalizer::Comments::Omit, Canonicalizer::Mode::Inclusive).write(root),
      R"(<p:a xmlns:p="urn:x" b="2" z="1"><p:b p:c="3"></p:b><c xmlns="urn:y"><d xmlns=""></d></c></p:a>)");

  const FastString text = "<r xmlns:p='urn:x'><p:i>one</p:i><p:i>two</p:i></r>";
  CapturedLog log;
  LibXmlXPath xpath;
  FastString result = "unchanged";
  EXPECT_EQ(xpath.evaluate("q:i", static_cast<const XmlNode*>(nullptr), result), qvc_InvalidArguments);
  EXPECT_EQ(xpath.evaluate("q:i", "<r", result), qvc_InvalidFormat);
  EXPECT_EQ(log.entries().back().message, "Can not parse XML: <r");
  EXPECT_EQ(xpath.evaluate("q:i", text, result), qvc_InvalidFormat) << "unknown prefix";
  EXPECT_EQ(xpath.evaluate("count(*)", text, result), qvc_InvalidFormat) << "no node set";
  EXPECT_EQ(log.entries().back().message, "Can not evaluate expression count(*) in onetwo");
  EXPECT_EQ(result, "unchanged");
  xpath.registerNamespace("q", "urn:x");
  for (const auto& [expression, value] : {std::pair("q:i[2]", "two"), std::pair("q:none", "")}) {
    EXPECT_EQ(xpath.evaluate(expression, text, result), qvc_Success) << expression;
    EXPECT_EQ(result, value);
  }
}

/// How many bytes `T::parse` uses; 0 for a failure, which must yield the fallback.
template <typename T> std::size_t used(const char* text, T fallback = {}) {
  const char* end = nullptr;
  const T value = T::parse(text, &end, fallback);
  if (end == text) {
    EXPECT_EQ(value, fallback) << text;
  }
  return static_cast<std::size_t>(end - text);
}

TEST(SchemaValues, DatesAndTimes) {
  const char* end = nullptr;
  const auto moment = XSDateTime::parse("2014-10-01T12:00:00.25+02:30 rest", &end, {});
  EXPECT_STREQ(end, " rest");
  EXPECT_EQ(std::tuple(moment.time, moment.zone, moment.inWholeSecondsSinceEpoch()),
            std::tuple(XSTimeOfDay{12, 0, 0, 0.25F}, XSTimeZone{2, 30, 1}, 1412155800));
  EXPECT_NE(used<XSDateTime>("2014-10-01T12:00:00Z"), 0u);
  for (const char* wrong : {"", "2014-10-01T12:00:00", "2014-13-01T00:00:00Z", "2014-10-01T12:00:00+15:00",
                            "2014-10-01T24:00:00Z", "2014-10-01T12:00:60Z", "2014-10-32T12:00:00Z",
                            "2014-10-01 12:00:00Z", "2014-10-01T12:00:00.Z", "2014-10-01T12:00:00.5e3Z"})
    EXPECT_EQ(used<XSDateTime>(wrong, {{1, 2, 3}, {}, {}}), 0u) << wrong;
  EXPECT_EQ(used<XSDate>("2015-02-31"), 10u) << "the day is not checked against the month";
  for (const auto& [date, seconds] : {std::pair(XSDate{1970, 1, 1}, std::uint64_t{0}),
                                      {XSDate{2000, 3, 1}, 951868800u},
                                      {XSDate{2024, 12, 31}, 1735603200u},
                                      {XSDate{1969, 12, 31}, ~std::uint64_t{0}}})
    EXPECT_EQ(date.inWholeSecondsSinceEpoch(), seconds);
}

TEST(SchemaValues, Durations) {
  const char* end = nullptr;
  const auto all = XSDuration::parse("P1Y2M3DT4H5M6S", &end, {});
  EXPECT_STREQ(end, "");
  EXPECT_EQ(all, (XSDuration{1, 2, 3, 4, 5, 6, 0, 1}));
  EXPECT_EQ(all.inUnsignedWholeSeconds(), 37090292u);
  EXPECT_EQ(XSDuration::parse("PT1.5S", nullptr, {}), (XSDuration{0, 0, 0, 0, 0, 1, 0.5F, 1}));
  const auto negative = XSDuration::parse("-PT10S", nullptr, {});
  EXPECT_EQ(std::tuple(negative.sign, negative.inUnsignedWholeSeconds()), std::tuple(-1, 10u));

  // Reading stops in front of what does not fit.
  const std::pair<const char*, const char*> stops[] = {{"P1W", "1W"},      {"P1M2Y", "2Y"}, {"P1M2M", "2M"},
                                                       {"P1DT2M3H", "3H"}, {"PT5", "5"},    {"P1D2M", "2M"},
                                                       {"PT1.5X", "1.5X"}, {"PT1H", ""},    {"P", ""}};
  for (const auto& [text, rest] : stops) {
    XSDuration::parse(text, &end, {});
    EXPECT_STREQ(end, rest) << text;
  }
  for (const char* wrong : {"", "1Y", "+P1Y", "PT1.5H", "PT1.5M3S"})
    EXPECT_EQ(used<XSDuration>(wrong, {9, 0, 0, 0, 0, 0, 0, 0}), 0u) << wrong;
}

} // namespace
