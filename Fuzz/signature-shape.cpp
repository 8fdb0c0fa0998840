#include "KlarboxKit/Platform/Linux/SignatureShape.hpp"

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view bytes) {
    tryTo([&] {
        const auto shape = SignatureShape::of(bytes);
        std::size_t length = shape.message.size();
        for (const auto certificate : shape.certificates) {
            require(bytes.find(certificate) != bytes.npos, "a certificate is in the signature");
            length += certificate.size();
        }
        require(shape.certificates.size() <= SignatureShape::mostCertificates &&
                    length <= bytes.size(),
                "what was taken apart is bounded");
        // What goes on to be decoded has the shape that was looked for, and nothing hidden in it.
        const auto again = SignatureShape::of(shape.message);
        require(again.message == shape.message && again.certificates.empty(),
                "the message alone is one without certificates");
    });
}
