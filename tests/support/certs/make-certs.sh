#!/bin/sh
# Remakes the test-only CA and the server certificates in this directory.
set -eu
cd "$(dirname "$0")"
days=3650
san="subjectAltName=IP:127.0.0.1,DNS:localhost"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

openssl genrsa -traditional -out ca.key 2048
openssl req -x509 -new -key ca.key -sha256 -days "$days" -subj "/CN=Murmora Test CA" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" -out ca.pem

openssl genrsa -traditional -out server.key 2048
openssl req -new -key server.key -subj "/CN=localhost" -out "$tmp/server.csr"
printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=critical,digitalSignature,keyEncipherment" \
    "extendedKeyUsage=serverAuth" "$san" >"$tmp/server.ext"
openssl x509 -req -in "$tmp/server.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -CAserial "$tmp/ca.srl" \
    -sha256 -days "$days" -extfile "$tmp/server.ext" -out server.pem

openssl genrsa -traditional -out untrusted.key 2048
openssl req -x509 -new -key untrusted.key -sha256 -days "$days" -subj "/CN=localhost" \
    -addext "$san" -addext "extendedKeyUsage=serverAuth" -out untrusted.pem

chmod 644 ./*.key
openssl verify -CAfile ca.pem server.pem
