#!/bin/sh
# certificates.sh FOLDER: certificates for tests, each NAME.pem (with its chain) and NAME.key: ca, an
# authority; good, for localhost and the loopback addresses; expired; other, for another host; self,
# signed by itself; broken, whose intermediate authority is missing; client.
set -eu
cd "$1"
key() { openssl ecparam -name prime256v1 -genkey -noout -out "$1.key"; }
# leaf NAME AUTHORITY DAYS NAMES
leaf() {
    key "$1"
    openssl req -new -key "$1.key" -subj "/O=postwire/CN=$1" -out "$1.csr"
    printf 'subjectAltName=%s\n' "$4" >"$1.ext"
    openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days "$3" \
        -extfile "$1.ext" -out "$1.pem"
}
key ca
openssl req -x509 -key ca.key -subj /CN=test-ca -days 30 -out ca.pem
key middle
openssl req -new -key middle.key -subj /CN=middle -out middle.csr
printf 'basicConstraints=critical,CA:TRUE\n' >middle.ext
openssl x509 -req -in middle.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 30 \
    -extfile middle.ext -out middle.pem
leaf good ca 30 DNS:localhost,IP:127.0.0.1,IP:::1
leaf expired ca -1 DNS:localhost,IP:127.0.0.1
leaf other ca 30 DNS:other.example
leaf broken middle 30 DNS:localhost,IP:127.0.0.1
leaf client ca 30 DNS:client
key self
openssl req -x509 -key self.key -subj /CN=self -addext subjectAltName=IP:127.0.0.1 -days 30 -out self.pem
