// A part of a page that is loaded when it is first shown, since few visitors see it.
import type { FunctionComponent } from 'preact'
import { useEffect, useState } from 'preact/hooks'
import { Failure, Spinner } from './ui'

export function later<Props extends object>(
  load: () => Promise<FunctionComponent<Props>>,
): FunctionComponent<Props> {
  let loaded: FunctionComponent<Props> | null = null
  return function Later(props: Props) {
    const [, show] = useState(0)
    const [failure, setFailure] = useState<unknown>(null)
    const fetch = () => {
      setFailure(null)
      load().then(part => ((loaded = part), show(1)), setFailure)
    }
    useEffect(() => {
      if (!loaded) fetch()
    }, [])
    const Part = loaded
    if (Part) return <Part {...props} />
    return failure ? <Failure failure={failure} onRetry={fetch} /> : <Spinner />
  }
}
