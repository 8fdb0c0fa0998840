#include "KlarboxKit/Platform/Linux/SignatureShape.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/DERReader.hpp"

#include <algorithm>
#include <array>

namespace klarbox {

namespace {

using Tag = DERReader::Tag;
using Element = DERReader::Element;
using namespace std::string_view_literals;

constexpr auto signedData = "\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02"sv;
/// The whole element: a content of this type, which is not there.
constexpr auto detachedData = "\x30\x0b\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01"sv;
constexpr std::array digests{
    "\x60\x86\x48\x01\x65\x03\x04\x02\x01"sv, // SHA-256
    "\x60\x86\x48\x01\x65\x03\x04\x02\x02"sv, // SHA-384
    "\x60\x86\x48\x01\x65\x03\x04\x02\x03"sv, // SHA-512
};

[[noreturn]] void refuse(const char *message) {
    throw PlatformError(PlatformError::Domain::cocoa, PlatformError::fileReadUnknown, message);
}

void require(bool holds, const char *message = "The signature is no CMS message in DER.") {
    if (!holds) {
        refuse(message);
    }
}

Element take(DERReader &reader, Tag tag) {
    const auto element = reader.take(tag);
    require(element.has_value());
    return *element;
}

/// The content of the element that is all there is.
std::string_view onlyContent(std::string_view bytes, Tag tag, const char *message) {
    DERReader reader(bytes);
    const auto element = reader.take(tag);
    require(element && reader.atEnd(), message);
    return element->content;
}

/// The object identifier of a digest algorithm that may be used.
std::string_view digestOf(std::string_view algorithm) {
    DERReader reader(algorithm);
    const auto identifier = take(reader, Tag::objectIdentifier).content;
    constexpr const char *message = "The signature's digest is not one of the SHA-2 family.";
    require(std::ranges::find(digests, identifier) != digests.end(), message);
    require(reader.atEnd() || take(reader, Tag::null).content.empty(), message);
    require(reader.atEnd(), message);
    return identifier;
}

std::vector<std::string_view> certificatesIn(std::string_view list) {
    std::vector<std::string_view> certificates;
    for (DERReader reader(list); !reader.atEnd();) {
        certificates.push_back(take(reader, Tag::sequence).whole);
        require(certificates.size() <= SignatureShape::mostCertificates,
                "The signature carries too many certificates.");
    }
    return certificates;
}

void checkSigner(std::string_view signer, std::string_view digest) {
    DERReader reader(signer);
    take(reader, Tag::integer);
    // The signing certificate, by its issuer and number or (primitive, hence the tag) by its key.
    constexpr auto keyIdentifier = static_cast<Tag>(0x80);
    take(reader, reader.isNext(keyIdentifier) ? keyIdentifier : Tag::sequence);
    require(digestOf(take(reader, Tag::sequence).content) == digest,
            "The signature does not have exactly one digest algorithm.");
    require(reader.isNext(Tag::context0) && !take(reader, Tag::context0).content.empty(),
            "The signature has no signed attributes.");
    take(reader, Tag::sequence);
    take(reader, Tag::octetString);
    require(reader.atEnd(), "The signature has attributes that are not signed.");
}

} // namespace

SignatureShape SignatureShape::of(std::string_view bytes) {
    constexpr const char *isOther = "The signature is no detached CMS signature.";
    DERReader all(bytes);
    DERReader content(take(all, Tag::sequence).content);
    require(all.atEnd());
    const auto type = take(content, Tag::objectIdentifier);
    require(type.content == signedData, isOther);
    const auto wrapped = take(content, Tag::context0).content;
    require(content.atEnd());

    constexpr const char *malformed = "The signature is no CMS message in DER.";
    DERReader reader(onlyContent(wrapped, Tag::sequence, malformed));
    const auto version = take(reader, Tag::integer);
    const auto digestSet = take(reader, Tag::set);
    const auto digest =
        digestOf(onlyContent(digestSet.content, Tag::sequence,
                             "The signature does not have exactly one digest algorithm."));
    const auto signedContent = take(reader, Tag::sequence);
    require(signedContent.whole == detachedData, isOther);
    std::vector<std::string_view> certificates;
    if (reader.isNext(Tag::context0)) {
        certificates = certificatesIn(take(reader, Tag::context0).content);
    }
    require(!reader.isNext(Tag::context1), "The signature carries revocation lists.");
    const auto signers = take(reader, Tag::set);
    require(reader.atEnd());
    checkSigner(onlyContent(signers.content, Tag::sequence,
                            "The signature does not have exactly one signer."),
                digest);

    std::string rest;
    for (const auto &part : {version, digestSet, signedContent, signers}) {
        rest += part.whole;
    }
    return {.message = derElement(Tag::sequence,
                                  std::string(type.whole) +
                                      derElement(Tag::context0, derElement(Tag::sequence, rest))),
            .certificates = std::move(certificates)};
}

} // namespace klarbox
