// Replaced by the image module.
