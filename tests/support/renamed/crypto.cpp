// The product's cryptography with its functions under other names (see renamed.h).
#define sha256_digest real_sha256_digest
#define hmac_sha256_digest real_hmac_sha256_digest
#define random_bytes real_random_bytes

#include KOVA_CRYPTO_SOURCE
