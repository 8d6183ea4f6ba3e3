"""What a check raises when a package is not as it should be."""


class Fault(Exception):
    pass


def require(holds, text):
    if not holds:
        raise Fault(text)
