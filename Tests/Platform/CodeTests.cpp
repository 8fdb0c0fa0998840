#include "KlarboxKit/Platform/CodeSigning.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Linux/DERReader.hpp"
#include "KlarboxKit/Platform/Linux/SignatureShape.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include "Tests/Support/Programs.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using Tag = DERReader::Tag;

constexpr const char *good = "app.klarbox.Klarbox of K7L4R9B0X2";

/// A program that says who it is and does nothing.
std::string program() {
    constexpr std::string_view names("\0__info_plist\0__xpc_client", 27);
    constexpr std::string_view list =
        "<plist><dict><key>CFBundleIdentifier</key><string>app.klarbox.Klarbox</string>"
        "<key>CFBundleShortVersionString</key><string>1.2.3</string></dict></plist>";
    struct {
        Elf64_Ehdr header{};
        Elf64_Shdr sections[4]{};
    } tables;
    std::memcpy(tables.header.e_ident, ELFMAG, SELFMAG);
    tables.header.e_ident[EI_CLASS] = ELFCLASS64;
    tables.header.e_ident[EI_DATA] = ELFDATA2LSB;
    tables.header.e_shoff = sizeof tables.header;
    tables.header.e_shentsize = sizeof(Elf64_Shdr);
    tables.header.e_shnum = 4;
    tables.header.e_shstrndx = 1;
    const auto set = [&](int index, Elf64_Word name, std::size_t offset, std::size_t size) {
        auto &section = tables.sections[index];
        section.sh_name = name;
        section.sh_type = SHT_PROGBITS;
        section.sh_offset = sizeof tables + offset;
        section.sh_size = size;
    };
    set(1, 0, 0, names.size());
    set(2, 1, names.size(), list.size());
    set(3, 14, 0, 0);
    std::string bytes(reinterpret_cast<const char *>(&tables), sizeof tables);
    return bytes.append(names).append(list);
}

/// Shell functions that make certificates and signatures. What they read of the environment has a
/// word before the call: `days=0 issue …`.
constexpr const char *functions = R"(
set -e; export LC_ALL=C; umask 022
ec='ec -pkeyopt ec_paramgen_curve:P-256'
ca='basicConstraints=critical,CA:TRUE'
signs='keyUsage=critical,digitalSignature'
code='extendedKeyUsage=codeSigning'
mail='extendedKeyUsage=emailProtection'
# authority NAME [EXTENSION]: one that nobody stands above
authority() {
    openssl req -x509 -newkey $ec -nodes -days 2 -keyout $1.key -out $1.pem -subj /CN=$1 \
        -addext $ca -addext keyUsage=critical,keyCertSign ${2:+-addext $2}
}
# issue NAME AUTHORITY EXTENSION…
issue() {
    name=$1 by=$2; shift 2
    printf '%s\n' "$@" >$name.ext
    openssl req -newkey ${key:-$ec} -nodes -keyout $name.key -out $name.csr \
        -subj /OU=${team:-K7L4R9B0X2}/CN=$name
    openssl x509 -req -in $name.csr -CA $by.pem -CAkey $by.key -days ${days:-2} -extfile $name.ext \
        -set_serial 0x$(openssl rand -hex 8) ${digest:--sha256} -out $name.pem
}
# sign SIGNER OPTION…: writes program.cms
sign() {
    name=$1; shift
    openssl cms -sign -binary -md ${md:-sha256} -nosmimecap -signer $name.pem -inkey $name.key \
        -in program -outform DER -out program.cms "$@"
}
)";

std::string element(Tag tag, const std::string &content) {
    const auto length = content.size();
    std::string header(1, static_cast<char>(tag));
    if (length > 0xff) {
        header += {'\x82', static_cast<char>(length >> 8)};
    } else if (length >= 0x80) {
        header += '\x81';
    }
    return header + static_cast<char>(length) + content;
}

/// What a signature consists of, to be put together otherwise.
struct Parts {
    std::string version;
    std::string digests;
    std::string content;
    std::string certificates;
    std::string lists = {};
    std::string signers;

    explicit Parts(const std::string &signature) {
        DERReader outer(DERReader(signature).take(Tag::sequence).value().content);
        type_ = outer.take(Tag::objectIdentifier).value().whole;
        DERReader inner(outer.take(Tag::context0).value().content);
        DERReader reader(inner.take(Tag::sequence).value().content);
        version = reader.take(Tag::integer).value().whole;
        digests = reader.take(Tag::set).value().content;
        content = reader.take(Tag::sequence).value().whole;
        certificates = reader.take(Tag::context0).value().content;
        signers = reader.take(Tag::set).value().content;
    }

    std::string bytes() const {
        const auto fields = version + element(Tag::set, digests) + content +
                            element(Tag::context0, certificates) + lists +
                            element(Tag::set, signers);
        return element(Tag::sequence,
                       type_ + element(Tag::context0, element(Tag::sequence, fields)));
    }

    /// Adds a field behind the last one of the signer.
    void extendSigner(const std::string &field) {
        const auto signer = DERReader(signers).take(Tag::sequence).value().content;
        signers = element(Tag::sequence, std::string(signer) + field);
    }

private:
    std::string type_;
};

class CodeOf : public testing::Test {
protected:
    const TemporaryTree tree_{{"base/program", text(program())}, {"base/anchors", directory()}};
    std::string folder_; ///< where the program of the present case lies

    void SetUp() override {
        runIn("base", "authority authority; issue signer authority $signs $code; "
                      "cp authority.pem anchors; sign signer");
    }

    void runIn(const std::string &folder, const std::string &commands) {
        folder_ = (tree_ / folder).path();
        const auto outcome = shell(functions + ("cd " + folder_ + "; " + commands));
        ASSERT_EQ(outcome.exitCode, 0) << commands << "\n" << outcome.out;
    }

    /// Begins a case: a folder with a signed program, and what the commands do in it.
    void prepare(const std::string &commands) {
        const auto name = "case-" + std::to_string(++cases_);
        runIn("base", "cp -a . ../" + name);
        runIn(name, commands);
    }

    FileURL file(const std::string &name = "program") const {
        return FileURL(folder_ + "/" + name);
    }
    CodeAnchors anchors() const { return {FileURL(folder_ + "/anchors", true), ::getuid()}; }

    void write(const std::string &name, const std::string &bytes) const {
        std::ofstream stream(file(name).path(), std::ios::binary);
        check(static_cast<bool>(stream << bytes), name);
    }

    /// Who the program is, or why its signature is not accepted.
    std::string verdict(const Code &code, const std::function<bool()> &isCancelled = {}) const {
        try {
            const auto information = code.signingInformation(anchors(), isCancelled);
            EXPECT_TRUE(information.endsInAnchor);
            return information.identifier + " of " + information.teamID;
        } catch (const PlatformError &error) {
            return error.message();
        }
    }
    std::string verdict() const { return verdict(Code::at(file())); }

private:
    int cases_ = 0;
};

TEST_F(CodeOf, aGoodSignerAloneIsAccepted) {
    constexpr const char *notForCode = "The signing certificate is not one for signing code.";
    constexpr const char *limited = "An authority above the signing certificate is not one";
    const struct {
        const char *what;
        const char *preparation;
        const char *verdict;
    } cases[] = {
        {"the signer", "", good},
        {"a longer digest", "md=sha512 sign signer", good},
        {"a signer below another authority",
         "issue middle authority $ca $code; issue leaf middle $signs $code; "
         "sign leaf -certfile middle.pem",
         good},
        {"several uses", "issue leaf authority $signs,keyAgreement $mail,codeSigning; sign leaf",
         good},
        {"another team", "team=AAAAAAAAAA issue leaf authority $signs $code; sign leaf",
         "app.klarbox.Klarbox of AAAAAAAAAA"},
        {"another identifier", "sed -i 's/Klarbox</Klarbax</' program; sign signer",
         "app.klarbox.Klarbax of K7L4R9B0X2"},
        {"no property list", "sed -i s/__info_plist/__info_plisd/ program; sign signer",
         "carries no information property list"},
        {"no program",
         "echo '#!/bin/true, and some more, up to what a header takes....' "
         ">program; sign signer",
         "The executable is damaged."},
        {"a changed byte", "sed -i s/1.2.3/1.2.4/ program", "is not valid: verification failure"},
        {"an appended byte", "printf x >>program", "is not valid: verification failure"},

        {"no signature", "rm program.cms", "There is no signature"},
        {"a link to it", "mv program.cms good; ln -s good program.cms", "There is no signature"},
        {"a pipe", "rm program.cms; mkfifo program.cms", "There is no signature"},
        {"an empty one", ": >program.cms", "no CMS message"},
        {"noise", R"(printf '0\202\1\1 noise' >program.cms)", "no CMS message"},
        {"a trailing byte", "echo >>program.cms", "no CMS message"},
        {"one that is too long", "head -c 16384 /dev/zero >>program.cms", "is longer than"},
        {"one with the program in it", "sign signer -nodetach", "no detached CMS signature"},
        {"nothing signed but the bytes", "sign signer -noattr", "has no signed attributes"},
        {"another digest", "md=sha1 sign signer", "not one of the SHA-2 family"},
        {"two signers",
         "issue leaf authority $signs $code; "
         "sign signer -signer leaf.pem -inkey leaf.key",
         "does not have exactly one signer"},
        {"no certificate", "sign signer -nocerts", "does not carry the signing certificate"},
        {"something else than data", "sign signer -econtent_type 1.2.3",
         "no detached CMS signature"},

        {"a stranger", "authority other; issue leaf other $signs $code; sign leaf",
         "unable to get local issuer certificate"},
        {"a stranger of the authority's name",
         "authority authority; issue leaf authority $signs $code authorityKeyIdentifier=none; "
         "sign leaf",
         "certificate signature failure"},
        {"the authority itself", "sign authority", notForCode},
        {"an authority that may sign code", "issue leaf authority $ca $signs $code; sign leaf",
         "The signing certificate is an authority's."},
        {"one that says it may issue", "issue leaf authority $signs,keyCertSign $code; sign leaf",
         "The signing certificate is an authority's."},
        {"no uses", "issue leaf authority basicConstraints=CA:FALSE; sign leaf", notForCode},
        {"no use of the key", "issue leaf authority $code; sign leaf", notForCode},
        {"another use of the key", "issue leaf authority keyUsage=keyAgreement $code; sign leaf",
         notForCode},
        {"no purpose", "issue leaf authority $signs; sign leaf", notForCode},
        {"electronic mail", "issue leaf authority $signs $mail; sign leaf", notForCode},
        {"any purpose",
         "issue leaf authority $signs extendedKeyUsage=anyExtendedKeyUsage; sign leaf", notForCode},
        {"an authority for mail",
         "issue middle authority $ca $mail; issue leaf middle $signs $code; "
         "sign leaf -certfile middle.pem",
         limited},
        {"an anchor for mail",
         "authority mail $mail; cp mail.pem anchors; issue leaf mail $signs $code; sign leaf",
         limited},
        {"no authority above",
         "issue middle authority $signs $code; issue leaf middle $signs $code; "
         "sign leaf -certfile middle.pem",
         "invalid CA certificate"},
        {"too many authorities above",
         "by=authority; for i in 1 2 3 4; do issue middle$i $by $ca; by=middle$i; done; "
         "issue leaf middle4 $signs $code; cat middle?.pem >all; sign leaf -certfile all",
         "certificate chain too long"},
        {"a weak key", "key=rsa:1024 issue leaf authority $signs $code; sign leaf",
         "EE certificate key too weak"},
        {"a weak certificate", "digest=-sha1 issue leaf authority $signs $code; sign leaf",
         "CA signature digest algorithm too weak"},
        {"an expired certificate", "days=-1 issue leaf authority $signs $code; sign leaf",
         "certificate has expired"},
    };
    for (const auto &[what, preparation, expected] : cases) {
        SCOPED_TRACE(what);
        prepare(preparation);
        EXPECT_THAT(verdict(), HasSubstr(expected));
    }
}

TEST_F(CodeOf, nobodyIsAcceptedWhenAnyAnchorIsNotToBeTrusted) {
    const struct {
        const char *preparation;
        const char *verdict;
    } cases[] = {
        {"chmod g+w anchors", "/anchors” is not trusted: others may change it."},
        {"chmod o+w anchors", "/anchors” is not trusted: others may change it."},
        {"chmod o+w .", "” is not trusted: others may change it."},
        {"chmod g+w anchors/authority.pem", "/authority.pem” is not trusted"},
        {"chmod o+w anchors/authority.pem", "/authority.pem” is not trusted"},
        {"mv anchors real; ln -s real anchors", "/anchors” could not be opened"},
        {"rm -r anchors", "/anchors” could not be opened"},
        {"ln -s authority.pem anchors/more.pem", "/more.pem” could not be read"},
        {"mkdir anchors/more.pem", "/more.pem” is no file of certificates"},
        {"mkfifo anchors/more.pem", "/more.pem” is no file of certificates"},
        {": >anchors/more.pem", "/more.pem” is no file of certificates"},
        {"cp signer.key anchors/more.pem", "/more.pem” is no file of certificates"},
        {"head -n 3 authority.pem >>anchors/authority.pem", "/authority.pem” is no file"},
        {"sed 's/^MII/MIJ/' authority.pem >anchors/more.pem", "/more.pem” is unusable"},
        {"(cat authority.pem; head -c 65536 /dev/zero) >anchors/more.pem", "/more.pem” is no file"},
        {"rm anchors/*", "unable to get local issuer certificate"},
        // What is not called an anchor is none, good or bad.
        {"echo >anchors/README; echo >anchors/.more.pem; cat signer.pem >>anchors/authority.pem",
         good},
    };
    for (const auto &[preparation, expected] : cases) {
        SCOPED_TRACE(preparation);
        prepare(preparation);
        EXPECT_THAT(verdict(), HasSubstr(expected));
    }
    if (isRoot()) {
        prepare("chown 65534 anchors/authority.pem");
        EXPECT_THAT(verdict(), HasSubstr("/authority.pem” is not trusted"));
    }
}

TEST_F(CodeOf, aSignatureOfAnotherShapeIsRefusedBeforeItCostsAnything) {
    const auto sha1 =
        element(Tag::sequence, element(Tag::objectIdentifier, "\x2b\x0e\x03\x02\x1a"));
    const auto sha512 = element(
        Tag::sequence, element(Tag::objectIdentifier, "\x60\x86\x48\x01\x65\x03\x04\x02\x03"));
    // Behind it: a set of one octet string.
    constexpr std::string_view digestType = "\x2a\x86\x48\x86\xf7\x0d\x01\x09\x04";
    constexpr const char *oneDigest = "does not have exactly one digest algorithm";
    constexpr const char *sha2 = "not one of the SHA-2 family";
    const std::tuple<const char *, std::function<void(Parts &)>, const char *> cases[] = {
        {"the same", [](Parts &) {}, good},
        {"no digest", [](Parts &p) { p.digests.clear(); }, oneDigest},
        {"a digest more", [&](Parts &p) { p.digests += sha512; }, oneDigest},
        {"a digest twice", [](Parts &p) { p.digests += p.digests; }, oneDigest},
        {"a thousand digests",
         [&](Parts &p) {
             for (int i = 0; i < 1000; ++i) {
                 p.digests += sha512;
             }
         },
         oneDigest},
        {"a digest that nobody used", [&](Parts &p) { p.digests = sha512; }, oneDigest},
        {"a digest of another family", [&](Parts &p) { p.digests = sha1; }, sha2},
        {"a digest with parameters",
         [](Parts &p) {
             const auto algorithm = DERReader(p.digests).take(Tag::sequence).value().content;
             p.digests = element(
                 Tag::sequence,
                 std::string(DERReader(algorithm).take(Tag::objectIdentifier).value().whole) +
                     element(Tag::null, "x"));
         },
         sha2},
        {"too many certificates",
         [](Parts &p) {
             const auto one = p.certificates;
             for (std::size_t i = 0; i < SignatureShape::mostCertificates; ++i) {
                 p.certificates += one;
             }
         },
         "carries too many certificates"},
        {"no certificate", [](Parts &p) { p.certificates += element(Tag::sequence, "x"); },
         "no CMS message"},
        {"revocation lists", [](Parts &p) { p.lists = element(Tag::context1, ""); },
         "carries revocation lists"},
        {"a signer more", [](Parts &p) { p.signers += p.signers; }, "exactly one signer"},
        {"unsigned attributes",
         [](Parts &p) { p.extendSigner(element(Tag::context1, element(Tag::sequence, ""))); },
         "attributes that are not signed"},
        {"a changed signature", [](Parts &p) { p.signers.back() ^= 1; }, "verification failure"},
        {"another program's digest",
         [&](Parts &p) { p.signers[p.signers.find(digestType) + 13] ^= 1; },
         "verification failure"},
    };
    // Hashing this takes long enough to be seen.
    prepare("truncate -s 64M program; sign signer");
    const auto signature = FileManager::contents(file("program.cms"));
    for (const auto &[what, change, expected] : cases) {
        SCOPED_TRACE(what);
        Parts parts(signature);
        change(parts);
        write("program.cms", parts.bytes());
        int asked = 0;
        const auto found = verdict(Code::at(file()), [&] { return ++asked < 0; });
        EXPECT_THAT(found, HasSubstr(expected));
        EXPECT_EQ(asked == 1, expected != good) << "the program was read";
    }

    runIn("case-1", "sign signer -econtent_type 1.2.3");
    Parts parts(FileManager::contents(file("program.cms")));
    parts.content = Parts(signature).content;
    write("program.cms", parts.bytes());
    EXPECT_THAT(verdict(), HasSubstr("not one over data"));
}

TEST(DERReader, takesNothingThatCouldHaveBeenWrittenOtherwise) {
    const struct {
        std::string header;
        std::size_t content; ///< bytes that follow
        bool isWhole;
    } cases[] = {
        {{"\x04\x00", 2}, 0, true},
        {"\x04\x7f", 127, true},
        {"\x04\x81\x80", 128, true},
        {{"\x04\x82\x01\x00", 4}, 256, true},
        {"", 0, false},
        {"\x04", 0, false},
        {"\x04\x03", 2, false},
        {"\x04\x81", 0, false},
        {"\x04\x81\x7f", 127, false},
        {"\x04\x81\x80", 127, false},
        {"\x04\x82\x01", 0, false},
        {{"\x04\x82\x00\xff", 4}, 255, false},
        {{"\x04\x83\x00\x01\x00", 5}, 256, false},
        {{"\x04\x80\x01x\x00\x00", 6}, 0, false},
        {"\x04\xff", 200, false},
        {"\x30\x01", 1, false},
    };
    for (const auto &[header, content, isWhole] : cases) {
        const auto bytes = header + std::string(content, 'x');
        // With no room to spare, so that reading beyond the end is seen.
        const std::vector<char> exact(bytes.begin(), bytes.end());
        DERReader reader({exact.data(), exact.size()});
        const auto element = reader.take(Tag::octetString);
        ASSERT_EQ(element.has_value(), isWhole) << testing::PrintToString(header);
        if (element) {
            EXPECT_EQ(element->whole, bytes);
            EXPECT_EQ(element->content.size(), content);
            EXPECT_TRUE(reader.atEnd());
        }
    }
}

TEST_F(CodeOf, whatIsToldWasVerifiedAlsoWhenTheFileChangesMeanwhile) {
    prepare("");
    const auto genuine = Code::at(file()).signingInformation(anchors());
    EXPECT_EQ(genuine, (SigningInformation{.endsInAnchor = true,
                                           .identifier = "app.klarbox.Klarbox",
                                           .teamID = "K7L4R9B0X2",
                                           .version = "1.2.3",
                                           .isXPCClient = true}));
    const auto bytes = FileManager::contents(file());
    for (const auto &[was, is] :
         {std::pair("Klarbox<", "Klarbax<"), std::pair("__xpc_client", "__xpc_clienx")}) {
        auto other = bytes;
        other.replace(other.find(was), std::strlen(was), is);
        write("program", other);
        int asked = 0;
        // What the program says it is was read when this is asked again, and its bytes were not.
        EXPECT_THAT(verdict(Code::at(file()),
                            [&] {
                                if (++asked == 2) {
                                    write("program", bytes);
                                }
                                return false;
                            }),
                    HasSubstr("it changed while it was being verified"));
        EXPECT_GE(asked, 2);
        EXPECT_EQ(verdict(), good);
    }
}

TEST_F(CodeOf, whatLostItsNameIsNotTakenForTheFileOfTheNameThatTheKernelShows) {
    prepare("");
    const auto code = Code::at(file());
    UniqueFD executable(::open(file().path().c_str(), O_RDONLY | O_CLOEXEC));
    auto signature = Code::openSignature(executable);
    const Code open(std::move(executable), std::move(signature));
    const std::string other = "program (deleted)";
    for (const char *commands :
         {"mv program.cms 'program (deleted).cms'; rm program",
          "cp ../base/program 'program (deleted)'", "cp ../base/program ../base/program.cms ."}) {
        const auto outcome = shell("set -e; cd " + folder_ + "; " + commands);
        ASSERT_EQ(outcome.exitCode, 0) << outcome.out;
        EXPECT_THAT(verdict(code), HasSubstr("was replaced or removed")) << commands;
    }
    EXPECT_EQ(verdict(Code::at(file(other))), good);
    EXPECT_EQ(verdict(), good);
    // Who has both open needs no names.
    EXPECT_EQ(verdict(open), good);
}

TEST_F(CodeOf, aVerificationEndsAtTheNextPieceOnceItIsCancelled) {
    prepare("truncate -s 2M program; sign signer");
    const auto code = Code::at(file());
    int pieces = 0;
    ASSERT_EQ(verdict(code, [&] { return ++pieces < 0; }), good);
    EXPECT_GE(pieces, 1 + (2 << 20) / (256 << 10));
    for (int piece = 1; piece <= pieces; ++piece) {
        int asked = 0;
        try {
            static_cast<void>(code.signingInformation(anchors(), [&] { return ++asked == piece; }));
            ADD_FAILURE() << piece;
        } catch (const PlatformError &error) {
            EXPECT_EQ(error.domain(), PlatformError::Domain::posix);
            EXPECT_EQ(error.code(), ECANCELED);
        }
        EXPECT_EQ(asked, piece);
    }
    // Nothing that a stranger brings is read through.
    const auto outcome = shell("rm " + folder_ + "/anchors/authority.pem");
    ASSERT_EQ(outcome.exitCode, 0) << outcome.out;
    int asked = 0;
    EXPECT_THAT(verdict(code, [&] { return ++asked < 0; }), HasSubstr("local issuer"));
    EXPECT_EQ(asked, 1);
}

} // namespace
} // namespace klarbox::test
