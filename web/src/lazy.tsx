// A page that is loaded when it is first opened, since few users open it.
import type { FunctionComponent } from 'preact'
import { useEffect, useState } from 'preact/hooks'
import { ApiError } from './api'
import { Failure, Spinner } from './ui'

export function lazy(load: () => Promise<FunctionComponent>): FunctionComponent {
  let loaded: FunctionComponent | null = null
  return function Lazy() {
    const [failed, setFailed] = useState(false)
    const [, setShown] = useState(loaded !== null)
    const start = () => {
      setFailed(false)
      load().then(
        page => ((loaded = page), setShown(true)),
        () => setFailed(true),
      )
    }
    useEffect(() => {
      if (!loaded) start()
    }, [])
    if (failed) return <Failure failure={new ApiError('network', 0, '')} onRetry={start} />
    const Page = loaded
    return Page ? <Page /> : <Spinner />
  }
}
