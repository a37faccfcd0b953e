"""Certificates of servers on this machine."""

from __future__ import annotations

import ssl
from datetime import UTC, datetime, timedelta
from ipaddress import ip_address
from pathlib import Path
from typing import Any

from cryptography import x509
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.hashes import SHA256


def write_certificate(path: Path, address: str, *, days: int = 1) -> Path:
    """A certificate that has signed itself, with its key; it ends in so many days."""
    key = ec.generate_private_key(ec.SECP256R1())
    name = x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, "server of a test")])
    now = datetime.now(UTC)
    certificate = (
        x509.CertificateBuilder()
        .subject_name(name)
        .issuer_name(name)
        .public_key(key.public_key())
        .serial_number(x509.random_serial_number())
        .not_valid_before(now - timedelta(days=10))
        .not_valid_after(now + timedelta(days=days))
        .add_extension(
            x509.SubjectAlternativeName([x509.IPAddress(ip_address(address))]), critical=False
        )
        .sign(key, SHA256())
    )
    secret = key.private_bytes(
        serialization.Encoding.PEM,
        serialization.PrivateFormat.PKCS8,
        serialization.NoEncryption(),
    )
    path.write_bytes(certificate.public_bytes(serialization.Encoding.PEM) + secret)
    return path


def encrypt(server: Any, certificate: Path) -> None:
    """Have a server of the standard library take encrypted connections only, from now on."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate)
    server.socket = context.wrap_socket(server.socket, server_side=True)
