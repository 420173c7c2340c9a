"""Several facts shown by one run: each has its sentence, and all that fail are told."""


class Facts:
    """Collects what does not hold; `with Facts() as fact: fact("sentence", condition)`."""

    def __init__(self):
        self._wrong = []

    def __call__(self, sentence, holds, seen=None):
        if not holds:
            self._wrong.append(sentence if seen is None else f"{sentence} (seen: {seen!r})")

    def __enter__(self):
        return self

    def __exit__(self, kind, error, trace):
        if kind is None:
            assert not self._wrong, "not so: " + "; ".join(self._wrong)
