"""The error a module raises, as the broker forwards it."""


class OXError(Exception):
    """An error raised by a module, by the broker, or by this client.

    The five fields are those of the C++ OXError; ``str(error)`` is its ``toString()``, so that a
    message reads the same whichever side prints it.
    """

    def __init__(self, module, method, description, file="", line=0):
        self.module = module
        self.method = method
        self.description = description
        self.file = file
        self.line = line
        super().__init__(module, method, description, file, line)

    def __str__(self):
        text = "%s::%s: %s" % (self.module, self.method, self.description)
        if self.file:
            text += " (%s:%d)" % (self.file, self.line)
        return text

    def __repr__(self):
        return "OXError(%r, %r, %r, %r, %r)" % (self.module, self.method, self.description,
                                                self.file, self.line)
