// The system's one 16-bit checksum, shared by the image parser and the flash host.
#pragma once
#include <cstdint>

// Little-endian 16-bit words summed modulo 65536; an odd last byte is added alone.
// No complement, no carry fold-back. A length of 0 or less gives 0.
uint16_t Sum16Words(const unsigned char* buf, long len);
