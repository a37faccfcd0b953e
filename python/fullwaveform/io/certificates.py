"""What to do about a server whose certificate is not accepted."""

from __future__ import annotations

import os
import ssl
from pathlib import Path

#: Variable that names a file of accepted certificates; packages for s3 have one of their own.
_VARIABLES = {"s3": "AWS_CA_BUNDLE", "s3a": "AWS_CA_BUNDLE"}
_OTHERS = "SSL_CERT_FILE"
# Of OpenSSL: no certificate that is accepted has signed the one of the server.
_UNKNOWN_AUTHORITY = (18, 19, 20, 21)


def certificate_reason(scheme: str, error: BaseException) -> str | None:
    """Why the request was not sent, if because of a certificate; else None.

    `error` is that of the library, which has the one of the certificate among its causes.
    """
    variable = _VARIABLES.get(scheme, _OTHERS)
    missing = _missing_file(variable)
    cause: BaseException | None = error
    while cause is not None:
        # Libraries derive errors of their own from this one, without the message.
        if isinstance(cause, ssl.SSLCertVerificationError) and hasattr(cause, "verify_message"):
            return _described(cause.verify_code, cause.verify_message, variable, missing)
        if missing and isinstance(cause, FileNotFoundError):
            return missing
        cause = cause.__cause__ or cause.__context__
    return None


def _described(code: int, message: str, variable: str, missing: str) -> str:
    what = message.rstrip(".")
    if code not in _UNKNOWN_AUTHORITY:
        return f"the certificate of the server is invalid: {what}"
    advice = missing or (
        f"if the server can be trusted, set {variable} to the file of its authority's certificate"
    )
    return f"the certificate of the server is not trusted ({what}); {advice} (docs/remote.md)"


def _missing_file(variable: str) -> str:
    """That the variable names no file, if so."""
    name = os.environ.get(variable, "")
    return f"{variable} is {name}, which does not exist" if name and not Path(name).exists() else ""
