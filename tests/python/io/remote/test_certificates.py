"""Servers with encrypted connections: files are the same, unknown certificates are explained."""

from __future__ import annotations

import ssl
import subprocess
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from http.client import HTTPSConnection
from pathlib import Path
from typing import Any

import boto3
import pytest

from fullwaveform.io.certificates import certificate_reason

from ...support.certificates import encrypt, write_certificate
from ...support.child_processes import TIMEOUT_S, environment
from ...support.command_line import run
from ...support.web_server import ServedFile, serving
from .stores import address_of, s3_server

VARIABLES = {"https": "SSL_CERT_FILE", "s3": "AWS_CA_BUNDLE"}


@dataclass(frozen=True)
class Scans:
    """Encrypted servers with the same file, and where the certificate of both is."""

    certificate: Path
    urls: dict[str, str]
    environment: dict[str, str]

    def run(self, *call: str | Path, **variables: str | Path) -> subprocess.CompletedProcess[str]:
        """The command in a process of its own: its libraries read certificates when loaded."""
        more = {name: str(value) for name, value in variables.items()}
        return subprocess.run(
            [sys.executable, "-m", "fullwaveform", *map(str, call)],
            env=environment(**self.environment, **more),
            capture_output=True,
            text=True,
            check=False,
            timeout=TIMEOUT_S,
        )

    def stored(self, name: str) -> bytes:
        """An object of the store, asked for with another library."""
        client = store_client(self.environment["AWS_ENDPOINT_URL"], verify=str(self.certificate))
        return bytes(client.get_object(Bucket="scans", Key=name)["Body"].read())


def store_client(address: str, verify: str | None = None) -> Any:
    return boto3.client(
        "s3",
        region_name="us-east-1",
        aws_access_key_id="key",
        aws_secret_access_key="secret",
        endpoint_url=address,
        verify=verify,
    )


@pytest.fixture(scope="module")
def scans(formats: dict[str, Path], tmp_path_factory: pytest.TempPathFactory) -> Iterator[Scans]:
    certificate = write_certificate(tmp_path_factory.mktemp("tls") / "server.pem", "127.0.0.1")
    content = formats["gedi"].read_bytes()
    with serving(lambda server: encrypt(server, certificate)) as web, s3_server() as store:
        web.files["gedi.h5"] = ServedFile.of(content)
        client = store_client(f"http://{address_of(store)}")
        client.create_bucket(Bucket="scans")
        client.put_object(Bucket="scans", Key="gedi.h5", Body=content)
        encrypt(store, certificate)
        variables = {
            "AWS_ACCESS_KEY_ID": "key",
            "AWS_SECRET_ACCESS_KEY": "secret",
            "AWS_DEFAULT_REGION": "us-east-1",
            "AWS_ENDPOINT_URL": f"https://{address_of(store)}",
            "AWS_MAX_ATTEMPTS": "1",
        }
        urls = {"https": f"https://{web.address}/gedi.h5", "s3": "s3://scans/gedi.h5"}
        yield Scans(certificate, urls, variables)


@pytest.mark.parametrize("scheme", VARIABLES)
def test_known_certificate_gives_the_same_result(
    scans: Scans, formats: dict[str, Path], tmp_path: Path, scheme: str
) -> None:
    local, remote = tmp_path / "local.parquet", tmp_path / "remote.parquet"
    assert run("extract", formats["gedi"], "-o", local, "--quiet").exit_code == 0
    output = "s3://scans/echoes.parquet" if scheme == "s3" else remote
    call = ("extract", scans.urls[scheme], "-o", output, "--quiet")
    done = scans.run(*call, **{VARIABLES[scheme]: scans.certificate})
    assert (done.returncode, done.stderr) == (0, "")
    written = scans.stored("echoes.parquet") if scheme == "s3" else remote.read_bytes()
    assert written == local.read_bytes()


@pytest.mark.parametrize("scheme", VARIABLES)
def test_unknown_certificate_is_explained(scans: Scans, scheme: str) -> None:
    done = scans.run("info", scans.urls[scheme])
    assert done.returncode == 1
    assert done.stderr == (
        f"fullwaveform: cannot read {scans.urls[scheme]}: the certificate of the server is not "
        "trusted (self-signed certificate); if the server can be trusted, set "
        f"{VARIABLES[scheme]} to the file of its authority's certificate (docs/remote.md)\n"
    )


@pytest.mark.parametrize("scheme", VARIABLES)
def test_missing_file_of_certificates_is_named(scans: Scans, tmp_path: Path, scheme: str) -> None:
    gone = tmp_path / "gone.pem"
    done = scans.run("info", scans.urls[scheme], **{VARIABLES[scheme]: gone})
    assert done.returncode == 1
    assert f"{VARIABLES[scheme]} is {gone}, which does not exist" in done.stderr
    assert done.stderr.count("\n") == 1


@pytest.mark.parametrize(
    ("address", "days", "message"),
    [
        ("127.0.0.1", -1, "certificate has expired"),
        ("127.0.0.2", 1, "IP address mismatch, certificate is not valid for '127.0.0.1'"),
    ],
)
def test_invalid_certificate_is_not_a_matter_of_trust(
    tmp_path: Path, address: str, days: int, message: str
) -> None:
    certificate = write_certificate(tmp_path / "server.pem", address, days=days)
    with serving(lambda server: encrypt(server, certificate)) as web:
        trusting = ssl.create_default_context(cafile=certificate)
        connection = HTTPSConnection(web.address, context=trusting, timeout=TIMEOUT_S)
        with pytest.raises(ssl.SSLCertVerificationError) as caught:
            connection.request("GET", "/")
    for error in (caught.value, caused_by(caught.value)):
        expected = f"the certificate of the server is invalid: {message}"
        assert certificate_reason("https", error) == expected


def caused_by(cause: Exception) -> Exception:
    error = OSError("cannot connect")
    error.__cause__ = cause
    return error


def test_other_errors_are_not_of_certificates() -> None:
    assert certificate_reason("s3", caused_by(ConnectionResetError())) is None
    assert certificate_reason("https", FileNotFoundError(2, "No such file")) is None
