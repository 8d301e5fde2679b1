// SPDX-License-Identifier: Apache-2.0
#include "host/AccessPolicy.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "testing/TempDir.h"

namespace {

std::string config(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
         "id=\"http://e.org/w\">\n"
         "<name>W</name>\n" +
         body + "\n</widget>\n";
}

AccessPolicy policy(const std::string& body) {
  return AccessPolicy::fromDocument(config(body));
}

TEST(AccessPolicyTest, NoAccessElementGrantsNothing) {
  AccessPolicy none = policy("");
  EXPECT_FALSE(none.grantsAll());
  EXPECT_TRUE(none.grants().empty());
  EXPECT_FALSE(none.allows("http://127.0.0.1/"));
  EXPECT_FALSE(none.allows("https://example.org/x.js"));
  EXPECT_EQ("", none.cspSources());
  EXPECT_EQ("", none.serialize());
}

TEST(AccessPolicyTest, WildcardGrantsEveryWebOriginButNoOtherScheme) {
  AccessPolicy all = policy("<access origin=\"*\"/>");
  EXPECT_TRUE(all.grantsAll());
  EXPECT_TRUE(all.allows("http://example.org/"));
  EXPECT_TRUE(all.allows("https://example.org:8443/a?b"));
  EXPECT_TRUE(all.allows("wss://example.org/socket"));
  EXPECT_FALSE(all.allows("file:///etc/passwd"));
  EXPECT_FALSE(all.allows("widget://other/index.html"));
  EXPECT_FALSE(all.allows("ftp://example.org/"));
  // Never "*": it would match the widget:// scheme too.
  EXPECT_EQ("http: https: ws: wss:", all.cspSources());
  EXPECT_EQ("*", all.serialize());
}

TEST(AccessPolicyTest, OriginIsSchemeHostAndPortWithDefaultPorts) {
  AccessPolicy one = policy("<access origin=\"http://example.org\"/>");
  ASSERT_EQ(1u, one.grants().size());
  EXPECT_EQ(80, one.grants()[0].port);
  EXPECT_TRUE(one.allows("http://example.org/any/path?q#f"));
  EXPECT_TRUE(one.allows("http://example.org:80/"));
  EXPECT_TRUE(one.allows("HTTP://EXAMPLE.ORG/"));
  EXPECT_FALSE(one.allows("http://example.org:8080/"));
  EXPECT_FALSE(one.allows("https://example.org/"));
  EXPECT_FALSE(one.allows("http://www.example.org/"));
  EXPECT_FALSE(one.allows("http://example.org.evil.net/"));
  EXPECT_FALSE(one.allows("http://notexample.org/"));
  EXPECT_FALSE(one.allows("http://127.0.0.1/"));

  AccessPolicy secure = policy("<access origin=\"https://example.org\"/>");
  ASSERT_EQ(1u, secure.grants().size());
  EXPECT_EQ(443, secure.grants()[0].port);
  EXPECT_TRUE(secure.allows("https://example.org:443/"));
  EXPECT_FALSE(secure.allows("http://example.org/"));

  AccessPolicy port = policy("<access origin=\"http://127.0.0.1:8123\"/>");
  EXPECT_TRUE(port.allows("http://127.0.0.1:8123/x"));
  EXPECT_FALSE(port.allows("http://127.0.0.1:8124/x"));
  EXPECT_FALSE(port.allows("http://127.0.0.1/x"));
}

TEST(AccessPolicyTest, IPv6GrantsStayOutOfThePolicy) {
  AccessPolicy six = policy("<access origin=\"http://[::1]:8123\"/>"
                            "<access origin=\"http://127.0.0.1:8123\"/>");
  EXPECT_EQ(2u, six.grants().size());
  EXPECT_EQ("http://127.0.0.1:8123 ws://127.0.0.1:8123", six.cspSources());
}

TEST(AccessPolicyTest, WebSocketsFollowTheOriginTheyUpgrade) {
  AccessPolicy one = policy("<access origin=\"http://127.0.0.1:8123\"/>");
  EXPECT_TRUE(one.allows("ws://127.0.0.1:8123/socket"));
  EXPECT_FALSE(one.allows("wss://127.0.0.1:8123/socket"));
  EXPECT_FALSE(one.allows("ws://127.0.0.1:8124/socket"));
  EXPECT_EQ("http://127.0.0.1:8123 ws://127.0.0.1:8123", one.cspSources());
}

// Scheme for scheme: what goes without TLS is granted by http only, what
// goes with it by https only, whichever of the two is granted.
TEST(AccessPolicyTest, PlainAndSecureSchemesAreNeverMixed) {
  AccessPolicy plain = policy("<access origin=\"http://127.0.0.1:8123\"/>");
  AccessPolicy secure = policy("<access origin=\"https://127.0.0.1:8123\"/>");
  for (const char* url : {"http://127.0.0.1:8123/", "ws://127.0.0.1:8123/"}) {
    EXPECT_TRUE(plain.allows(url)) << url;
    EXPECT_FALSE(secure.allows(url)) << url;
  }
  for (const char* url : {"https://127.0.0.1:8123/", "wss://127.0.0.1:8123/"}) {
    EXPECT_FALSE(plain.allows(url)) << url;
    EXPECT_TRUE(secure.allows(url)) << url;
  }
  EXPECT_EQ("an origin the widget was not granted",
            plain.refusal("w", "wss://127.0.0.1:8123/s", false));
  EXPECT_EQ("an origin the widget was not granted",
            secure.refusal("w", "ws://127.0.0.1:8123/s", false));
  EXPECT_EQ("https://127.0.0.1:8123 wss://127.0.0.1:8123", secure.cspSources());
}

TEST(AccessPolicyTest, SubdomainsOnlyWhenAsked) {
  AccessPolicy sub =
      policy("<access origin=\"http://w3.org\" subdomains=\"  true \"/>");
  EXPECT_TRUE(sub.allows("http://w3.org/"));
  EXPECT_TRUE(sub.allows("http://dev.w3.org/"));
  EXPECT_TRUE(sub.allows("http://a.b.w3.org/"));
  EXPECT_FALSE(sub.allows("http://dev-w3.org/"));
  EXPECT_FALSE(sub.allows("http://w3.org.evil.net/"));
  EXPECT_EQ(
      "http://w3.org:80 http://*.w3.org:80 ws://w3.org:80 "
      "ws://*.w3.org:80",
      sub.cspSources());

  for (const char* body : {"<access origin=\"http://w3.org\"/>",
                           "<access origin=\"http://w3.org\" "
                           "subdomains=\"false\"/>"}) {
    AccessPolicy plain = policy(body);
    EXPECT_TRUE(plain.allows("http://w3.org/")) << body;
    EXPECT_FALSE(plain.allows("http://dev.w3.org/")) << body;
  }
}

TEST(AccessPolicyTest, ElementsInErrorAreIgnored) {
  for (const char* body : {
           "<access/>",
           "<access subdomains=\"true\">http://e.org</access>",
           "<access origin=\"http://e.org/\"/>",
           "<access origin=\"http://e.org/path\"/>",
           "<access origin=\"http://e.org?q\"/>",
           "<access origin=\"http://e.org#f\"/>",
           "<access origin=\"http://user@e.org\"/>",
           "<access origin=\"http:\"/>",
           "<access origin=\"http://*\"/>",
           "<access origin=\"*://*.e.org/*\"/>",
           "<access origin=\"[  *  ]\"/>",
           "<access origin=\"*:e:org\"/>",
           "<access origin=\"ftp://e.org\"/>",
           "<access origin=\"file:///etc\"/>",
           "<access origin=\"widget://other\"/>",
           "<access origin=\"http://e.org\" subdomains=\"yes\"/>",
           "<access origin=\"http://e.org\" subdomains=\"TRUE\"/>",
           // Not children of the widget element, or not of its vocabulary.
           "<feature name=\"f\"><access origin=\"http://e.org\"/></feature>",
           "<foo><access origin=\"http://e.org\"/></foo>",
           "<access xmlns=\"\" origin=\"http://e.org\"/>",
           "<x:access xmlns:x=\"urn:other\" origin=\"http://e.org\"/>",
       }) {
    AccessPolicy ignored = policy(body);
    EXPECT_FALSE(ignored.grantsAll()) << body;
    EXPECT_TRUE(ignored.grants().empty()) << body;
    EXPECT_FALSE(ignored.allows("http://e.org/")) << body;
  }
}

TEST(AccessPolicyTest, HostsAreComparedInTheirAsciiLowerCaseForm) {
  AccessPolicy upper = policy("<access origin=\"https://W3C-test.ORG\"/>");
  ASSERT_EQ(1u, upper.grants().size());
  EXPECT_EQ("w3c-test.org", upper.grants()[0].host);
  EXPECT_TRUE(upper.allows("https://w3c-test.org/"));

  AccessPolicy idn = policy(
      "<access origin=\"http://b\xc3\xbc"
      "cher.example\"/>");
  ASSERT_EQ(1u, idn.grants().size());
  EXPECT_EQ("xn--bcher-kva.example", idn.grants()[0].host);
  EXPECT_TRUE(idn.allows("http://xn--bcher-kva.example/"));
}

TEST(AccessPolicyTest, UnreadableDocumentsGrantNothing) {
  EXPECT_TRUE(AccessPolicy::fromDocument("").grants().empty());
  EXPECT_TRUE(AccessPolicy::fromDocument("<widget").grants().empty());
  EXPECT_FALSE(
      AccessPolicy::fromDocument("<widget><access origin=\"*\"/></widget>")
          .grantsAll());  // no namespace: not a widget document
  EXPECT_FALSE(AccessPolicy::fromFile("/nonexistent/config.xml").grantsAll());
  // An external entity is not fetched, nor expanded into the origin.
  TempDir dir;
  TempDir::writeFile(dir.file("origin.txt"), "*");
  AccessPolicy entity = AccessPolicy::fromDocument(
      "<?xml version=\"1.0\"?>\n<!DOCTYPE widget [<!ENTITY o SYSTEM \"" +
      dir.file("origin.txt") +
      "\">]>\n<widget xmlns=\"http://www.w3.org/ns/widgets\">"
      "<access origin=\"&o;\"/></widget>");
  EXPECT_FALSE(entity.grantsAll());
}

TEST(AccessPolicyTest, SerializedPolicyReadsBackTheSame) {
  AccessPolicy many = policy(
      "<access origin=\"http://a.org\" subdomains=\"true\"/>"
      "<access origin=\"https://b.org:8443\"/>");
  AccessPolicy back = AccessPolicy::deserialize(many.serialize());
  EXPECT_EQ(many.serialize(), back.serialize());
  EXPECT_EQ(many.cspSources(), back.cspSources());
  EXPECT_TRUE(back.allows("http://x.a.org/"));
  EXPECT_TRUE(back.allows("https://b.org:8443/"));
  EXPECT_FALSE(back.allows("https://b.org/"));
  EXPECT_TRUE(AccessPolicy::deserialize("*").grantsAll());
  EXPECT_TRUE(AccessPolicy::deserialize("garbage;;1 2").grants().empty());
}

TEST(AccessPolicyTest, RefusalsOfAWidgetPageAndOfAPlainPage) {
  AccessPolicy one = policy("<access origin=\"http://127.0.0.1:9\"/>");
  const std::string shown = "clock";
  for (bool navigation : {false, true}) {
    EXPECT_EQ("", one.refusal(shown, "widget://clock/a.html", navigation));
    EXPECT_EQ("", one.refusal(shown, "http://127.0.0.1:9/x", navigation));
    EXPECT_EQ("", one.refusal(shown, "about:blank", navigation));
    EXPECT_EQ("another widget's files",
              one.refusal(shown, "widget://other/a.html", navigation));
    EXPECT_EQ("a file:// address, from a widget",
              one.refusal(shown, "file:///etc/passwd", navigation));
    EXPECT_EQ("an origin the widget was not granted",
              one.refusal(shown, "http://127.0.0.1:10/", navigation));
    EXPECT_EQ("an address a widget may not reach",
              one.refusal(shown, "ftp://127.0.0.1:9/", navigation));
    // A plain page goes anywhere but into a widget.
    EXPECT_EQ("", one.refusal("", "file:///etc/passwd", navigation));
    EXPECT_EQ("a widget's files, from a page",
              one.refusal("", "widget://clock/a.html", navigation));
  }
  EXPECT_EQ("", one.refusal(shown, "data:image/png;base64,AAAA", false));
  EXPECT_EQ("", one.refusal(shown, "blob:widget://clock/1234", false));
  EXPECT_NE("", one.refusal(shown, "data:text/html,<p>", true));
  EXPECT_NE("", one.refusal(shown, "blob:widget://clock/1234", true));
}

TEST(AccessPolicyTest, WidgetAuthority) {
  EXPECT_EQ("clock", AccessPolicy::widgetAuthority("widget://clock/a.html"));
  EXPECT_EQ("clock", AccessPolicy::widgetAuthority("WIDGET://clock?x"));
  EXPECT_EQ("", AccessPolicy::widgetAuthority("file:///clock/a.html"));
  EXPECT_EQ("", AccessPolicy::widgetAuthority("widget:"));
}

// The access-request conformance suite's configuration documents, each
// read as a widget of the suite would be: the origins it must be granted.
TEST(AccessPolicyTest, ConformanceSuiteDocuments) {
  const std::string suite = WIDGETENGINE_SOURCE_DIR
      "/../shared/corpus/w3c-packaged-webapps/warp/test-suite/test-cases/";
  if (!TempDir::exists(suite)) GTEST_SKIP() << "no corpus at " << suite;
  const std::map<std::string, std::string> expected = {
      {"ta-case-insensitive-compare/"
       "HTTPS_compare_hosts_in_a_case-insensitive_manner",
       "https w3c-test.org 443 0"},
      {"ta-case-insensitive-compare/"
       "HTTP_compare_hosts_in_a_case-insensitive_manner",
       "http w3c-test.org 80 0"},
      {"ta-default-policy/do_not_load_iframe", ""},
      {"ta-default-policy/do_not_load_image", ""},
      {"ta-default-policy/do_not_load_script", ""},
      {"ta-default-port/load_image_from_port_443", "https w3c-test.org 443 0"},
      {"ta-default-port/load_image_from_port_80", "http w3c-test.org 80 1"},
      {"ta-default-port/load_image_from_port_83", "http w3c-test.org 83 1"},
      {"ta-equal-markup-api/block_loading_text_over_xhr", ""},
      {"ta-equal-markup-api/load_image_and_script",
       "http dev.w3.org 80 1;http w3c-test.org 80 1"},
      {"ta-equal-markup-api/load_text_over_xhr", "http w3c-test.org 80 1"},
      {"ta-grant-access/load_iframe", "http dev.w3.org 80 0"},
      {"ta-grant-access/load_image", "http dev.w3.org 80 1"},
      {"ta-grant-access/load_script", "http w3c-test.org 80 0"},
      {"ta-ignore-unsupported-scheme/ignore_access_with_unsupported_scheme",
       ""},
      {"ta-missing-origin-attr/ignore_access_with_missing_origin",
       "http dev.w3.org 80 0"},
      {"ta-parse-origin-attr/ignore_access_element_with_fragment", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_http_no_host", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_invalid_uri_1", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_invalid_uri_2", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_invalid_uri_3", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_iuserinfo", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_no_authority", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_no_host", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_path_component_1", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_path_component_2", ""},
      {"ta-parse-origin-attr/ignore_access_element_with_query_component", ""},
      {"ta-parse-subdomains-attr/do_not_load_image_from_subdomain1",
       "http w3.org 80 0"},
      {"ta-parse-subdomains-attr/do_not_load_image_from_subdomain2",
       "http w3.org 80 0"},
      {"ta-parse-subdomains-attr/load_image_from_subdomain1",
       "http w3.org 80 1"},
      {"ta-parse-subdomains-attr/load_image_from_subdomain2",
       "http w3.org 80 1"},
      {"ta-parsing-wildcard/wildcard_ignore_whitespace", "*"},
      {"ta-parsing-wildcard/wildcard_plus_access_element", "*"},
      {"ta-parsing-wildcard/wildcard_support", "*"},
      {"ta-parsing/ignore_dir_lro", "http w3c-test.org 80 1"},
      {"ta-parsing/ignore_dir_ltr", "http w3c-test.org 80 1"},
      {"ta-parsing/ignore_dir_rlo", "http w3c-test.org 80 1"},
      {"ta-parsing/ignore_dir_rtl", "http w3c-test.org 80 1"},
      {"ta-parsing/ignore_nested_access_in_any_element",
       "http w3c-test.org 80 1"},
      {"ta-parsing/ignore_nested_access_in_foo", "http w3c-test.org 80 1"},
      {"ta-toASCII/load_image_using_toASCII", "http w3c-test.org 80 0"},
  };
  for (const auto& test : expected) {
    const std::string path = suite + test.first + "/config.xml";
    ASSERT_TRUE(TempDir::exists(path)) << path;
    EXPECT_EQ(test.second, AccessPolicy::fromFile(path).serialize())
        << test.first;
  }
}

}  // namespace
