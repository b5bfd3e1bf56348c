# The API documentation.
