#include "tests/propertylist/Expectations.h"

#include <limits>

namespace appsync {
namespace {

using Code = PropertyListErrorCode;
using namespace std::string_literals;

constexpr std::string_view head = "<plist version=\"1.0\">";

std::string plist(std::string_view content) {
    return std::string(head) + std::string(content) + "</plist>";
}

constexpr int manyKeyCount = 100;

std::string manyKeys() {
    std::string element = "<dict>";
    for (int i = 0; i < manyKeyCount; ++i) {
        element += "<key>the key of number " + std::to_string(i) + "</key><integer>" + std::to_string(i) + "</integer>";
    }
    return element + "</dict>";
}

Dictionary manyEntries() {
    Dictionary entries;
    for (int i = 0; i < manyKeyCount; ++i) {
        entries.set("the key of number " + std::to_string(i), i);
    }
    return entries;
}

struct ElementCase {
    const char* name;
    std::string element;
    Value value;
};

void PrintTo(const ElementCase& tested, std::ostream* out) {
    *out << tested.name;
}

class XmlElement : public testing::TestWithParam<ElementCase> {};

TEST_P(XmlElement, IsRead) {
    const Value read = mustRead(plist(GetParam().element));
    EXPECT_EQ(read.kind(), GetParam().value.kind());
    EXPECT_EQ(read, GetParam().value) << read.description();
}

const ElementCase elementCases[] = {
    {"true", "<true/>", true},
    {"false", "<false></false>", false},
    {"booleanWithWhiteSpace", "<true> \n</true>", true},
    {"integer", "<integer>42</integer>", 42},
    {"negativeInteger", "<integer>-42</integer>", -42},
    {"integerWithPlus", "<integer>+42</integer>", 42},
    {"integerWithWhiteSpace", "<integer>\n\t42 </integer>", 42},
    {"integerWithLeadingZeros", "<integer>007</integer>", 7},
    {"largestInteger", "<integer>9223372036854775807</integer>", std::numeric_limits<std::int64_t>::max()},
    {"smallestInteger", "<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
    {"unsignedInteger", "<integer>9223372036854775808</integer>", std::uint64_t{1} << 63},
    {"largestUnsignedInteger", "<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
    {"real", "<real>0.1</real>", 0.1},
    {"realWithExponent", "<real>-1.5E-7</real>", -1.5e-7},
    {"realWithPlus", "<real>+2</real>", 2.0},
    {"realWithWhiteSpace", "<real> 1.0 </real>", 1.0},
    {"date", "<date>2001-01-01T00:01:00Z</date>", Date{60}},
    {"dateWithWhiteSpace", "<date>\n2001-01-01T00:01:00Z\n</date>", Date{60}},
    {"data", "<data>\n\tAP+A\n</data>", Data("\x00\xFF\x80"s)},
    {"emptyData", "<data/>", Data()},
    {"string", "<string>abc</string>", "abc"},
    {"emptyString", "<string/>", ""},
    {"stringKeepsWhiteSpace", "<string> a\n\tb </string>", " a\n\tb "},
    {"stringOfWhiteSpace", "<string>  </string>", "  "},
    {"predefinedEntities", "<string>&lt;&amp;&gt;&quot;&apos;</string>", "<&>\"'"},
    {"characterReferences", "<string>&#65;&#x20AC;&#13;&#x1F600;</string>", "A\xE2\x82\xAC\r\xF0\x9F\x98\x80"},
    {"characterData", "<string>a<![CDATA[<b>&amp;]]>c</string>", "a<b>&amp;c"},
    {"comments", "<!-- a --><string>a<!-- b -->c</string><!-- d -->", "ac"},
    {"processingInstruction", "<?a b?><string>a<?c d?>b</string>", "ab"},
    {"characterDataWithLineEnds", "<string><![CDATA[a\r\nb\rc]]]]></string>", "a\nb\nc]]"},
    {"emptyCharacterData", "<string>a<![CDATA[]]>b</string>", "ab"},
    {"emptyContainersBesideLeaves", "<array><dict/><string>a</string><array/><integer>1</integer></array>",
     Array{Dictionary{}, "a", Array{}, 1}},
    {"bracketsInAText", "<string>a]]b]</string>", "a]]b]"},
    {"greaterThanInAText", "<string>a > b</string>", "a > b"},
    {"referenceInAKey", "<dict><key>a&amp;b</key><true/></dict>", Dictionary{{"a&b", true}}},
    {"spaceInTags", "<dict\n><key >a</key\t><string  >b</string\r\n></dict >", Dictionary{{"a", "b"}}},
    {"attributes", "<string a='1' b = \"&lt;&#65;'\" _c:d-1.e='\n'>a</string>", "a"},
    {"longestText", "<string>" + std::string(100'000, 'x') + "</string>", std::string(100'000, 'x')},
    {"dictionaryOfManyKeys", manyKeys(), manyEntries()},
    {"lineEndsBecomeLineFeeds", "<string>a\r\nb\rc</string>", "a\nb\nc"},
    {"utf8", "<string>\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80</string>", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
    {"emptyArray", "<array/>", Array{}},
    {"array", "<array>\n<true/>\n<string>a</string><array></array></array>", Array{true, "a", Array{}}},
    {"emptyDictionary", "<dict> </dict>", Dictionary{}},
    {"dictionary", "<dict>\n\t<key>a</key>\n\t<integer>1</integer><key/><dict/></dict>",
     Dictionary{{"a", 1}, {"", Dictionary{}}}},
};

template <class Case> std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, XmlElement, testing::ValuesIn(elementCases), nameOf<ElementCase>);

struct ElementErrorCase {
    const char* name;
    std::string content;
    Code code;
    std::size_t offset; // from the beginning of the content
};

void PrintTo(const ElementErrorCase& tested, std::ostream* out) {
    *out << tested.name;
}

class WrongXmlElement : public testing::TestWithParam<ElementErrorCase> {};

TEST_P(WrongXmlElement, IsRefused) {
    expectReadError(plist(GetParam().content), GetParam().code, head.size() + GetParam().offset);
}

const ElementErrorCase elementErrorCases[] = {
    {"nothing", "", Code::missingValue, 0},
    {"onlyWhiteSpace", "  \n", Code::missingValue, 3},
    {"twoRoots", "<true/><true/>", Code::unexpectedElement, 7},
    {"twoContainers", "<array/><dict/>", Code::unexpectedElement, 8},
    {"textBesideTheRoot", "<true/>text", Code::unexpectedText, 7},
    {"textAfterWhiteSpace", "<array>  text</array>", Code::unexpectedText, 9},
    {"textInAnArray", "<array>text<true/></array>", Code::unexpectedText, 7},
    {"textInADictionary", "<dict><key>a</key>text<true/></dict>", Code::unexpectedText, 18},
    {"characterDataInAnArray", "<array><![CDATA[x]]></array>", Code::unexpectedText, 16},
    {"elementInCharacterData", "<array><![CDATA[\r<string>a</string>]]></array>", Code::unexpectedText, 17},
    {"unknownElement", "<array><set/></array>", Code::unexpectedElement, 7},
    {"elementInAnotherCase", "<String>a</String>", Code::unexpectedElement, 0},
    {"uid", "<uid>1</uid>", Code::unexpectedElement, 0},
    {"elementInAString", "<string>a<true/></string>", Code::unexpectedElement, 9},
    {"elementInABoolean", "<true><true/></true>", Code::unexpectedElement, 6},
    {"elementInAKey", "<dict><key>a<string/></key><true/></dict>", Code::unexpectedElement, 12},
    {"plistInside", "<plist/>", Code::unexpectedElement, 0},
    {"keyInAnArray", "<array><key>a</key></array>", Code::unexpectedElement, 7},
    {"keyAsRoot", "<key>a</key>", Code::unexpectedElement, 0},
    {"keyWithoutValue", "<dict><key>a</key></dict>", Code::missingValue, 18},
    {"twoKeys", "<dict><key>a</key><key>b</key><true/></dict>", Code::missingValue, 18},
    {"valueWithoutKey", "<dict><true/></dict>", Code::missingKey, 6},
    {"containerWithoutKey", "<dict><key>a</key><true/><array/></dict>", Code::missingKey, 25},
    {"duplicateKey", "<dict><key>a</key><true/><key>a</key><true/></dict>", Code::duplicateKey, 25},
    {"textInABoolean", "<true>x</true>", Code::unexpectedText, 0},
    {"emptyInteger", "<integer/>", Code::invalidNumber, 0},
    {"integerOfLetters", "<integer>abc</integer>", Code::invalidNumber, 0},
    {"hexadecimalInteger", "<integer>0x10</integer>", Code::invalidNumber, 0},
    {"integerWithFraction", "<integer>1.0</integer>", Code::invalidNumber, 0},
    {"integerWithTwoSigns", "<integer>+-1</integer>", Code::invalidNumber, 0},
    {"integerWithInnerSpace", "<integer>1 2</integer>", Code::invalidNumber, 0},
    {"integerTooLarge", "<integer>18446744073709551616</integer>", Code::numberOutOfRange, 0},
    {"integerTooSmall", "<integer>-9223372036854775809</integer>", Code::numberOutOfRange, 0},
    {"integerFarTooLarge", "<integer>" + std::string(1000, '9') + "</integer>", Code::numberOutOfRange, 0},
    {"emptyReal", "<real></real>", Code::invalidNumber, 0},
    {"realOfLetters", "<real>one</real>", Code::invalidNumber, 0},
    {"realWithTail", "<real>1.5x</real>", Code::invalidNumber, 0},
    {"hexadecimalReal", "<real>0x1p3</real>", Code::invalidNumber, 0},
    {"realThatIsNotANumber", "<real>nan</real>", Code::numberOutOfRange, 0},
    {"infiniteReal", "<real>inf</real>", Code::numberOutOfRange, 0},
    {"negativeInfiniteReal", "<real>-infinity</real>", Code::numberOutOfRange, 0},
    {"realTooLarge", "<real>1e999</real>", Code::numberOutOfRange, 0},
    {"emptyDate", "<date/>", Code::invalidDate, 0},
    {"dateWithoutTime", "<date>2001-01-01</date>", Code::invalidDate, 0},
    {"dayThatDoesNotExist", "<date>2001-02-29T00:00:00Z</date>", Code::invalidDate, 0},
    {"badBase64", "<data>A</data>", Code::invalidData, 0},
    {"base64WithOtherCharacters", "<data>AA-_</data>", Code::invalidData, 0},
    {"invalidUtf8", "<string>a\x80</string>", Code::invalidText, 9},
    {"invalidUtf8InAKey", "<dict><key>\xC3</key><true/></dict>", Code::invalidText, 11},
    {"encodedSurrogate", "<string>\xED\xA0\x80</string>", Code::invalidText, 8},
    {"controlCharacter", "<string>a\x01</string>", Code::invalidText, 9},
    {"controlCharacterInAKey", "<dict><key>\x1F</key><true/></dict>", Code::invalidText, 11},
    {"zeroByte", "<string>a\0</string>"s, Code::invalidText, 9},
    {"controlCharacterBetweenElements", "<array>\x02</array>", Code::invalidText, 7},
    {"referenceToAControlCharacter", "<string>&#1;</string>", Code::invalidText, 8},
    {"referenceToZero", "<string>&#0;</string>", Code::invalidText, 8},
    {"referenceToASurrogate", "<string>&#xD800;</string>", Code::invalidText, 8},
    {"referenceToANoncharacter", "<string>&#xFFFE;</string>", Code::invalidText, 8},
    {"referenceBeyondUnicode", "<string>&#x110000;</string>", Code::invalidText, 8},
    {"noncharacter", "<string>\xEF\xBF\xBF</string>", Code::invalidText, 8},
    {"undefinedEntity", "<string>&foo;</string>", Code::malformedXml, 8},
    {"bareAmpersand", "<string>a & b</string>", Code::malformedXml, 11},
    {"crossedElements", "<array><string></array></string>", Code::malformedXml, 17},
    {"entityWithoutEnd", "<string>&amp</string>", Code::malformedXml, 12},
    {"referenceWithoutNumber", "<string>&#;</string>", Code::malformedXml, 10},
    {"hexadecimalReferenceWithoutNumber", "<string>&#x;</string>", Code::malformedXml, 11},
    {"referenceOfManyDigits", "<string>&#99999999999999999999;</string>", Code::invalidText, 8},
    {"referenceToAHighSurrogate", "<string>&#xDFFF;</string>", Code::invalidText, 8},
    {"referenceBetweenElements", "<array>&#65;</array>", Code::unexpectedText, 7},
    {"characterDataEndInAText", "<string>a]]>b</string>", Code::malformedXml, 9},
    {"characterDataWithoutEnd", "<string><![CDATA[a</string>", Code::malformedXml, 8},
    {"controlCharacterInCharacterData", "<string><![CDATA[\x01]]></string>", Code::invalidText, 17},
    {"controlCharacterInAComment", "<!-- \x01 --><true/>", Code::invalidText, 5},
    {"controlCharacterInAnInstruction", "<?a \x01?><true/>", Code::invalidText, 4},
    {"controlCharacterInAnAttribute", "<true a='\x01'/>", Code::invalidText, 9},
    {"controlCharacterInATag", "<true \x01/>", Code::invalidText, 6},
    {"hyphensInAComment", "<!-- a -- b --><true/>", Code::malformedXml, 9},
    {"commentWithoutEnd", "<!-- a <true/>", Code::malformedXml, 0},
    {"instructionWithoutEnd", "<?a b><true/>", Code::malformedXml, 0},
    {"instructionWithoutName", "<? a?><true/>", Code::malformedXml, 2},
    {"declarationInside", "<?xml version=\"1.0\"?><true/>", Code::malformedXml, 0},
    {"instructionOfTheDeclarationsName", "<?XmL a?><true/>", Code::malformedXml, 0},
    {"documentTypeInside", "<!DOCTYPE plist><true/>", Code::malformedXml, 0},
    {"markupWithoutMeaning", "<!ELEMENT a ANY><true/>", Code::malformedXml, 0},
    {"tagWithoutName", "< true/>", Code::malformedXml, 1},
    {"nameThatBeginsWithADigit", "<1/>", Code::malformedXml, 1},
    {"tagWithoutEnd", "<true <true/>", Code::malformedXml, 6},
    {"slashInATag", "<true / >", Code::malformedXml, 7},
    {"attributeWithoutValue", "<true a/>", Code::malformedXml, 7},
    {"attributeWithoutQuotes", "<true a=1/>", Code::malformedXml, 8},
    {"attributeWithoutEnd", "<true a='1/>", Code::malformedXml, 0},
    {"attributesWithoutSpace", "<true a='1'b='2'/>", Code::malformedXml, 11},
    {"tagInAnAttribute", "<true a='<'/>", Code::malformedXml, 9},
    {"undefinedEntityInAnAttribute", "<true a='&foo;'/>", Code::malformedXml, 9},
    {"endOfAnotherName", "<array></arrays>", Code::malformedXml, 9},
    {"endOfAShorterName", "<string>a</strin>", Code::malformedXml, 11},
    {"endWithAttribute", "<array></array a='1'>", Code::malformedXml, 15},
    {"endTooMany", "</array><true/>", Code::malformedXml, 2},
    {"twoAttributesOfOneName", "<true a=\"1\" a=\"2\"/>", Code::malformedXml, 12},
};

INSTANTIATE_TEST_SUITE_P(Kinds, WrongXmlElement, testing::ValuesIn(elementErrorCases), nameOf<ElementErrorCase>);

void expectMalformed(const std::string& file) {
    ErrorPtr error;
    EXPECT_FALSE(PropertyListCodec().propertyListWithData(file, &error)) << file;
    ASSERT_TRUE(error) << file;
    EXPECT_EQ(error->domain(), propertyListErrorDomain);
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::malformedXml)) << error->description();
}

TEST(XmlReader, IgnoresTheDocumentTypeLine) {
    const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    EXPECT_EQ(mustRead(declaration + "<!DOCTYPE plist>\n" + plist("<true/>")), Value(true));
    EXPECT_EQ(mustRead(declaration + "<!DOCTYPE plist SYSTEM \"file:///etc/passwd\">" + plist("<true/>")), Value(true));
    EXPECT_EQ(mustRead("<!DOCTYPE other PUBLIC \"-//EXAMPLE//DTD 1//EN\" \"http://example.com/a.dtd\">" +
                       plist("<string>&amp;</string>")),
              Value("&"));
}

TEST(XmlReader, RefusesAWrongDocumentType) {
    for (const char* type :
         {"<!DOCTYPE>", "<!DOCTYPEplist>", "<!DOCTYPE plist", "<!DOCTYPE plist a>", "<!DOCTYPE plist SYSTEM>",
          "<!DOCTYPE plist SYSTEM 'a>", "<!DOCTYPE plist PUBLIC 'a'>", "<!DOCTYPE plist PUBLIC '<' 'a'>",
          "<!DOCTYPE plist PUBLIC 'a''b'>", "<!DOCTYPE plist><!DOCTYPE plist>", "<!doctype plist>"}) {
        expectMalformed(type + plist("<true/>"));
    }
}

TEST(XmlReader, RefusesAWrongDeclaration) {
    for (const char* declaration :
         {"<?xml?>", "<?xml ?>", "<?xml version='1.0'>", "<?xml version=1.0?>", "<?xml version='1 0'?>",
          "<?xml version=''?>", "<?xml encoding='UTF-8'?>", "<?xml version='1.0' encoding=''?>",
          "<?xml version='1.0' standalone='maybe'?>", "<?xml version='1.0' standalone='yes' encoding='UTF-8'?>",
          "<?xml version='1.0'encoding='UTF-8'?>", " <?xml version='1.0'?>", "<!-- a --><?xml version='1.0'?>"}) {
        expectMalformed(declaration + plist("<true/>"));
    }
    EXPECT_EQ(mustRead("<?xml version = '1.0'  encoding='UTF-8' standalone='no' ?>" + plist("<true/>")), Value(true));
    EXPECT_EQ(mustRead("<?xmlish a?>" + plist("<true/>")), Value(true));
}

TEST(XmlReader, BoundsTheAttributesOfAnElement) {
    const auto elementWith = [](int count) {
        std::string element = "<true";
        for (int i = 0; i < count; ++i) {
            element += " a" + std::to_string(i) + "=''";
        }
        return plist(element + "/>");
    };
    EXPECT_EQ(mustRead(elementWith(32)), Value(true));
    expectMalformed(elementWith(33));
}

TEST(XmlReader, RefusesDefinitionsInTheDocumentType) {
    for (const char* definitions :
         {"<!ENTITY a \"b\">", "<!ENTITY % a \"b\">", "<!ENTITY a SYSTEM \"file:///etc/passwd\">",
          "<!ATTLIST dict a CDATA \"b\">", "<!ELEMENT plist ANY>", "<!NOTATION a SYSTEM \"b\">", ""}) {
        const std::string type = "<!DOCTYPE plist [" + std::string(definitions) + "]>";
        expectReadError(type + plist("<true/>"), Code::typeDefinitions, type.find('['));
    }
}

TEST(XmlReader, RefusesEntitiesThatExpandWithoutEnd) {
    std::string type = "<!DOCTYPE plist [<!ENTITY e0 \"aaaaaaaaaa\">";
    for (int i = 1; i < 20; ++i) {
        const std::string inner = "&e" + std::to_string(i - 1) + ";";
        type += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k) {
            type += inner;
        }
        type += "\">";
    }
    expectReadError("\n" + type + "]>" + plist("<string>&e19;</string>"), Code::typeDefinitions, 1 + type.find('['));
}

TEST(XmlReader, RefusesEntitiesThatTheIgnoredDocumentTypeMayDefine) {
    const std::string type = "<!DOCTYPE plist SYSTEM \"a.dtd\">";
    expectReadError(type + plist("<string>a&foo;b</string>"), Code::malformedXml, type.size() + head.size() + 9);
}

TEST(XmlReader, ReadsOnlyUtf8) {
    EXPECT_EQ(mustRead("<?xml version=\"1.0\" encoding=\"utf-8\"?>" + plist("<true/>")), Value(true));
    EXPECT_EQ(mustRead("<?xml version=\"1.0\"?>" + plist("<true/>")), Value(true));
    for (const char* encoding : {"ISO-8859-1", "UTF-16", "utf-7", "UTF-88", "UTF-"}) {
        const std::string declaration = "<?xml version=\"1.0\" encoding=\"" + std::string(encoding) + "\"?>";
        expectReadError(declaration + plist("<true/>"), Code::unsupportedEncoding, 0);
    }
}

TEST(XmlReader, SkipsAByteOrderMarkAndLeadingWhiteSpace) {
    EXPECT_EQ(mustRead("\xEF\xBB\xBF<?xml version=\"1.0\"?>" + plist("<true/>")), Value(true));
    EXPECT_EQ(mustRead("\r\n\t " + plist("<true/>") + "\n"), Value(true));
}

TEST(XmlReader, RefusesAnotherRoot) {
    expectReadError("<dict/>", Code::unexpectedElement, 0);
    expectReadError("<string>a</string>", Code::unexpectedElement, 0);
    expectReadError("<html><plist/></html>", Code::unexpectedElement, 0);
    expectReadError(plist("<true/>") + plist("<true/>"), Code::malformedXml, plist("<true/>").size());
    expectReadError(plist("<true/>") + "text", Code::malformedXml, plist("<true/>").size());
}

TEST(XmlReader, RefusesOtherVersions) {
    EXPECT_EQ(mustRead("<plist><true/></plist>"), Value(true));
    expectReadError("<plist version=\"0.9\"><true/></plist>", Code::unexpectedElement, 0);
}

TEST(XmlReader, RefusesWhatIsNeitherFormat) {
    for (const char* text : {"", " ", "{ a = 1; }", "bplist01", "bplist", "\xFF\xFE<", "\xEF\xBB\xBF"}) {
        expectReadError(text, Code::unknownFormat, 0);
    }
}

TEST(XmlReader, EveryTruncationIsRefused) {
    std::string file = mustWrite(smallSample(), PropertyListFormat::xml);
    file.pop_back(); // the last line feed says nothing
    for (std::size_t size = 0; size < file.size(); ++size) {
        const std::vector<char> cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size));
        ErrorPtr error;
        EXPECT_FALSE(PropertyListCodec().propertyListWithData({cut.data(), cut.size()}, &error)) << size;
        ASSERT_TRUE(error) << size;
        EXPECT_EQ(error->domain(), propertyListErrorDomain);
    }
}

TEST(XmlReader, EveryChangeOfOneByteEndsInAValueOrAnError) {
    const std::string file = mustWrite(smallSample(), PropertyListFormat::xml);
    for (std::size_t i = 0; i < file.size(); ++i) {
        for (const char value :
             {'\0', '\x01', '\n', '<', '>', '&', '/', '"', '1', 'a', '\x7F', '\x80', '\xC3', '\xFF'}) {
            std::string damaged = file;
            damaged[i] = value;
            ASSERT_NO_FATAL_FAILURE(expectValueOrError(damaged)) << i << " is " << static_cast<int>(value);
        }
    }
}

std::string nestedElements(std::size_t depth) {
    std::string content;
    for (std::size_t i = 0; i < depth; ++i) {
        content += "<array>";
    }
    for (std::size_t i = 0; i < depth; ++i) {
        content += "</array>";
    }
    return plist(content);
}

TEST(XmlReader, ReadsContainersUpToTheDepthLimit) {
    EXPECT_EQ(mustRead(nestedElements(maxPropertyListDepth)), nestedArrays(maxPropertyListDepth));
    const std::size_t offset = head.size() + 7 * maxPropertyListDepth;
    expectReadError(nestedElements(maxPropertyListDepth + 1), Code::tooDeep, offset);
    expectReadError(nestedElements(100'000), Code::tooDeep, offset);
}

TEST(XmlReader, RefusesAHundredThousandUnclosedElements) {
    std::string file(head);
    for (int i = 0; i < 100'000; ++i) {
        file += "<dict><key>a</key>";
    }
    expectReadError(file, Code::tooDeep, head.size() + 18 * maxPropertyListDepth);
}

TEST(XmlReader, GivesTheSameAsTheBinaryReader) {
    EXPECT_EQ(mustRead(mustWrite(smallSample(), PropertyListFormat::xml)),
              mustRead(mustWrite(smallSample(), PropertyListFormat::binary)));
}

} // namespace
} // namespace appsync
