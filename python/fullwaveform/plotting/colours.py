"""Colours that pictures and pages share."""

#: By mode, distinguishable with colour vision deficiencies (Okabe and Ito 2008).
METHOD_COLOURS = ("#0072b2", "#d55e00", "#009e73", "#aa4499", "#56b4e9")
